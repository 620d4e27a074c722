#include <Korvo/Scheduler.h>
