#include "KivFramework/KivLogger.h"
