#include "kelo_api.h"
