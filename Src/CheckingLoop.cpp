#include "CheckingLoop.h"
