#include "KivFramework/KivFileSystem.h"
