#include "KivFramework/KivPerformanceMonitor.h"

// No operation starts the sampler yet, so there is never one to stop.
void KivFramework::KivPerformanceMonitor::StopPerformanceMonitor() {}
