#include "KivFramework/KivServices.h"
