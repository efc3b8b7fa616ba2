#include "KivFramework/KivSocket.h"
