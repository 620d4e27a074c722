#include <Korvo/KoStrUtils.h>
