#include <Korvo/KorvoApi.h>
