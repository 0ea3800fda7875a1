#include "fit.h"
