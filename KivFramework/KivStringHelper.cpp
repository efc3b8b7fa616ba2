#include "KivFramework/KivStringHelper.h"
