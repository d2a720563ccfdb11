#include "StrConv.h"
