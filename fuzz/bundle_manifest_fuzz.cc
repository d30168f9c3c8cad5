// Untrusted bundle manifests (the bundle.json of an application or
// extension, written by whoever installed it): loading the bundle, finding it
// by identifier and by executable, its localized information and its display
// name must never crash, hang or grow without bound, and must agree with
// each other.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz/fuzz_scratch.h"
#include "platform/log.h"
#include "platform/system/bundle.h"
#include "support/localization.h"

namespace {

std::string bundleDirectory() {
    return sv::fuzz::scratchDirectory() + "/bundles/app";
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    sv::log::setOutputEnabled(false);
    const std::string& scratch = sv::fuzz::scratchDirectory();
    // Only the bundle under test is known; the user prefers Canadian French.
    setenv("SORVEL_BUNDLE_PATH", (scratch + "/bundles").c_str(), 1);
    setenv("XDG_DATA_HOME", (scratch + "/data").c_str(), 1);
    setenv("LANGUAGE", "fr_CA:de", 1);
    const std::string dir = bundleDirectory();
    sv::fuzz::writeFile(dir + "/fr.lproj/Localizable.strings", R"({"TITLE": "Titre"})");
    sv::fuzz::writeFile(dir + "/en.lproj/Localizable.strings", R"({"TITLE": "Title"})");
    sv::fuzz::writeFile(dir + "/bin/app", "#!/bin/sh\n");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string dir = bundleDirectory();
    sv::fuzz::writeFile(dir + "/" + sv::kBundleInfoFileName, data, size);

    auto bundle = sv::Bundle::bundleWithPath(dir);
    if (!bundle || !bundle->infoDictionary().is_object()) std::abort();
    const auto identifier = bundle->bundleIdentifier();
    (void)bundle->developmentLocalization();
    (void)bundle->localizations();
    (void)bundle->localizedInfoDictionary();
    (void)bundle->localizedStringForKey("TITLE", "", "Localizable");
    const std::string name = sv::_svLocalizedAppName(*bundle);

    // The executable inside finds the same bundle.
    auto enclosing = sv::Bundle::bundleForExecutablePath(dir + "/bin/app");
    if (!enclosing || enclosing->bundlePath() != bundle->bundlePath()) std::abort();

    // So does a lookup by its identifier, with the same display name.
    if (identifier && !identifier->empty()) {
        auto found = sv::Bundle::bundleWithIdentifier(*identifier);
        if (!found || found->bundleIdentifier() != identifier) std::abort();
        if (sv::_svLocalizedAppNameFromBundleID(*identifier) != name) std::abort();
    }
    return 0;
}
