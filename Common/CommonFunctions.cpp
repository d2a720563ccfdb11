#include "CommonFunctions.h"
