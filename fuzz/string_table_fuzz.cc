// Untrusted string tables (a Localizable.strings of the client framework):
// every lookup must give a string (the key itself at worst) and never crash,
// hang or grow without bound; a table that decodes must give back each of
// its strings under its key.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz/fuzz_scratch.h"
#include "platform/log.h"
#include "platform/system/bundle.h"
#include "support/localization.h"

namespace {

// A key of the consent alert, and one that no table has.
const char* const kKeys[] = {"ACKNOWLEDGEMENT_ALERT_TITLE", "NO_SUCH_KEY"};

std::string frameworkDirectory() {
    return sv::fuzz::scratchDirectory() + "/framework";
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    sv::log::setOutputEnabled(false);
    const std::string dir = frameworkDirectory();
    // The table under test is French; the user prefers Canadian French, so
    // the lookup goes through the base language's table.
    setenv("SORVEL_FRAMEWORK_DIR", dir.c_str(), 1);
    setenv("LANGUAGE", "fr_CA", 1);
    sv::fuzz::writeFile(dir + "/bundle.json",
                        R"({"identifier": "org.sorvel.framework", "developmentLanguage": "en"})");
    sv::fuzz::writeFile(dir + "/en.lproj/Localizable.strings",
                        R"({"ACKNOWLEDGEMENT_ALERT_TITLE": "Allow screen recording in “%@”?"})");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    sv::fuzz::writeFile(frameworkDirectory() + "/fr.lproj/Localizable.strings", data, size);

    for (const char* key : kKeys) {
        auto text = sv::_svLocalizedStringFromFrameworkBundleWithKey(key, "com.example.app");
        if (!text) std::abort();  // the framework bundle exists
    }
    auto table = sv::localizedDictionaryForLanguage("fr");
    auto direct = sv::_svFrameworkBundle()->stringTable("Localizable", "fr");
    if (table.has_value() != direct.has_value()) std::abort();
    if (!table) return 0;
    if (!table->is_object()) std::abort();
    // Every string of the table is found under its key (keys the service
    // could not name, with a NUL inside, aside); two are enough.
    int checked = 0;
    for (const auto& [key, value] : table->items()) {
        if (++checked > 2) break;
        if (!value.is_string() || key.find('\0') != std::string::npos) continue;
        auto text = sv::_svLocalizedStringFromFrameworkBundleWithKey(key, "com.example.app");
        if (!text || *text != value.get<std::string>()) std::abort();
    }
    return 0;
}
