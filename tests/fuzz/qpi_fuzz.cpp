// Fuzz target: any text read as a fitting input file is refused with a message, or gives a
// problem the engine accepts: sites with spins 1..20, paths between two different sites with
// a J value that is given, temperatures above 0, every number finite and printable.
#include <cstdint>
#include <memory>
#include <string>

#include "fit/exchange_files.h"
#include "fit/input_file.h"
#include "fuzz_checks.h"
#include "platform/messages.h"
#include "platform/ports.h"

namespace {

// Messages are expected here; they are not shown.
class Silent final : public corvane::MessagePort {
public:
    int messageBox(const std::string&, const std::string&, unsigned) override { return 1; }
    void beep(unsigned) override {}
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace corvane;
    static Silent silent;
    setMessagePort(&silent);
    static const auto fresh = std::make_unique<FitDocument>();
    auto doc = std::make_unique<FitDocument>(*fresh);
    if (!readInputText(std::string(reinterpret_cast<const char*>(data), size), "fuzz.qpi", *doc))
        return 0;
    fuzz::require(doc->calculationCount == 1 && doc->siteCount >= 1 && doc->pairCount >= 1);
    for (int s = 1; s <= doc->siteCount; ++s)
        fuzz::require(doc->sites[slot(s)].spin >= 1 && doc->sites[slot(s)].spin <= maxTwiceSpin);
    for (int n = 1; n <= doc->interactionCount; ++n)
        fuzz::require(doc->interactions[slot(n)].siteA != doc->interactions[slot(n)].siteB);
    for (int i = 1; i <= doc->pairCount; ++i) fuzz::require(doc->pairs[slot(i)].temperature > 0);
    fuzz::checkDocument(*doc);
    (void)engineInputText(*doc, 1);
    (void)engineDataText(*doc);
    return 0;
}
