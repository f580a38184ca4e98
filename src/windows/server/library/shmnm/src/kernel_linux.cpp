#include "kernel.h"
