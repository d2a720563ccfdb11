#include "MarkupSTL.h"
