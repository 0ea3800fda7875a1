#include "spectrum.h"
