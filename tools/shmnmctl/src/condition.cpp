#include "condition.h"
