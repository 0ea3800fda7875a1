#include "fit/run_state.h"

namespace corvane {

RunState runState;

} // namespace corvane
