#include "des.h"
