#include "md5.h"
