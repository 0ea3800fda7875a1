#include "fit/fit_document.h"

namespace corvane {

FitDocument fitDocument;

void resetFitDocument() { fitDocument = FitDocument{}; }

} // namespace corvane
