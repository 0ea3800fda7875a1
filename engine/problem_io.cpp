#include "problem_io.h"
