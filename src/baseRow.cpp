#include <Korvo/baseRow.h>
