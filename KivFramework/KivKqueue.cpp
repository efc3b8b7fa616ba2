#include "KivFramework/KivKqueue.h"
