#include "EasyLog.h"
