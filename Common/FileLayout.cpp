#include "FileLayout.h"
