#include "JLibrary.h"
