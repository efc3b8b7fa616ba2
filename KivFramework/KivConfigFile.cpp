#include "KivFramework/KivConfigFile.h"
