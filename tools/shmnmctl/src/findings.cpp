#include "findings.h"
