#include <gtest/gtest.h>

#include "platform/system/bundle.h"
#include "platform/system/languages.h"
#include "support/localization.h"
#include "tests/support/test_util.h"

namespace sv {
namespace {

using test::languageEnv;
using test::writeFile;

TEST(PreferredLanguages, FromLocaleEnvironment) {
    using V = std::vector<std::string>;
    EXPECT_EQ(preferredLanguagesFromLocale(nullptr, nullptr, nullptr, "fr_FR.UTF-8"), V{"fr-FR"});
    EXPECT_EQ(preferredLanguagesFromLocale("de_AT:fr::de_AT@euro", "en_US", nullptr, nullptr),
              (V{"de-AT", "fr"}));
    EXPECT_EQ(preferredLanguagesFromLocale("", "pt_BR", "de_DE", "fr_FR"), V{"pt-BR"});
    EXPECT_EQ(preferredLanguagesFromLocale(nullptr, "", "sr_RS@latin", "fr"), V{"sr-RS"});
    EXPECT_EQ(preferredLanguagesFromLocale("C", nullptr, nullptr, "it_IT"), V{"it-IT"});
    for (const char* c : {"C", "POSIX", "C.UTF-8"})
        EXPECT_TRUE(preferredLanguagesFromLocale(nullptr, c, nullptr, "fr_FR").empty()) << c;
    EXPECT_TRUE(preferredLanguagesFromLocale(nullptr, nullptr, nullptr, nullptr).empty());

    auto env = languageEnv("es_MX:es");
    EXPECT_EQ(preferredLanguages(), (V{"es-MX", "es"}));
}

TEST(PreferredLanguages, ChooseLocalization) {
    const std::vector<std::string> available = {"en", "fr", "pt-BR", "pt"};
    EXPECT_EQ(chooseLocalization({"fr-CA"}, available, "en"), "fr");
    EXPECT_EQ(chooseLocalization({"pt-BR"}, available, "en"), "pt-BR");
    EXPECT_EQ(chooseLocalization({"it", "pt-PT"}, available, "en"), "pt");
    EXPECT_EQ(chooseLocalization({"it"}, available, "en"), "en");
    EXPECT_EQ(chooseLocalization({}, available, "xx"), "xx");
}

// One framework directory for the whole process: the framework bundle is
// created once, so the path is set before any test touches it.
class FrameworkEnvironment : public ::testing::Environment {
  public:
    void SetUp() override {
        dir_ = std::make_unique<test::TempDir>();
        writeFile(*dir_ / "en.lproj/Localizable.strings",
                  R"({"HELLO": "Hello", "ONLY_EN": "English only", "TITLE": "Record “%@”?"})");
        writeFile(*dir_ / "fr.lproj/Localizable.strings", R"({"HELLO": "Bonjour"})");
        writeFile(*dir_ / "de.lproj/Localizable.strings",
                  R"({"HELLO": "Hallo", "DE_ONLY": "Nur"})");
        writeFile(*dir_ / "pt-BR.lproj/Localizable.strings", R"({"HELLO": "Olá"})");
        writeFile(*dir_ / "it.lproj/Localizable.strings", R"(["not", "a", "table"])");
        setenv("SORVEL_FRAMEWORK_DIR", dir_->path().c_str(), 1);
    }
    void TearDown() override { dir_.reset(); }

  private:
    std::unique_ptr<test::TempDir> dir_;
};
const auto* const gFramework = ::testing::AddGlobalTestEnvironment(new FrameworkEnvironment);

std::optional<std::string> localized(const std::string& key) {
    return _svLocalizedStringFromFrameworkBundleWithKey(key, "com.example.app");
}

TEST(Localization, FrameworkBundleIsCreatedOnce) {
    auto bundle = _svFrameworkBundle();
    ASSERT_TRUE(bundle);
    EXPECT_EQ(bundle, _svFrameworkBundle());
    EXPECT_EQ(bundle->bundlePath(), std::getenv("SORVEL_FRAMEWORK_DIR"));
}

TEST(Localization, TablesPerLanguage) {
    auto fr = localizedDictionaryForLanguage("fr");
    ASSERT_TRUE(fr);
    EXPECT_EQ((*fr)["HELLO"], "Bonjour");
    EXPECT_FALSE(localizedDictionaryForLanguage("es"));
    EXPECT_FALSE(localizedDictionaryForLanguage("it"));  // not a dictionary
    EXPECT_FALSE(localizedDictionaryForLanguage("../en"));
}

TEST(Localization, RegionalLanguageFallsBackToItsBase) {
    auto env = languageEnv("fr_CA");
    EXPECT_EQ(localized("HELLO"), "Bonjour");
    auto brazil = languageEnv("pt_BR");
    EXPECT_EQ(localized("HELLO"), "Olá");  // the exact table first
}

TEST(Localization, SecondPreferredLanguageIsNeverConsulted) {
    // fr has no DE_ONLY; the standard lookup then stays with fr and the
    // development language, so the key itself comes back.
    auto env = languageEnv("fr_CA:de");
    EXPECT_EQ(localized("DE_ONLY"), "DE_ONLY");
    EXPECT_EQ(localized("ONLY_EN"), "English only");
}

TEST(Localization, StandardLookupWithoutPreferredLanguages) {
    test::ScopedEnv env{{"LANGUAGE", std::nullopt}, {"LC_ALL", "C"}, {"LANG", "de_DE.UTF-8"}};
    ASSERT_TRUE(preferredLanguages().empty());
    EXPECT_EQ(localized("HELLO"), "Hello");
    EXPECT_EQ(localized("MISSING_KEY"), "MISSING_KEY");
}

TEST(Localization, UnreadableTableIsSkipped) {
    auto env = languageEnv("it");
    EXPECT_EQ(localized("HELLO"), "Hello");
    EXPECT_EQ(_svFrameworkBundle()->localizedStringForKey("NOPE", "fallback", "Localizable"),
              "fallback");
    EXPECT_EQ(_svFrameworkBundle()->localizedStringForKey("HELLO", "", "Other"), "HELLO");
}

TEST(Localization, ShippedTablesHaveEveryConsentAlertKey) {
    auto framework = Bundle::bundleWithPath(SV_SOURCE_SHARE_DIR "/framework");
    ASSERT_TRUE(framework);
    for (const char* language : {"en", "de", "fr"}) {
        auto table = framework->stringTable("Localizable", language);
        ASSERT_TRUE(table) << language;
        for (const char* suffix :
             {"TITLE", "BODY", "BODY_CAMERA", "BODY_MIC", "DECLINE_BUTTON", "ACCEPT_BUTTON_1",
              "ACCEPT_BUTTON_1_CAMERA", "ACCEPT_BUTTON_2", "ACCEPT_BUTTON_1_MICROPHONE_DISABLED"}) {
            std::string key = std::string("ACKNOWLEDGEMENT_ALERT_") + suffix;
            auto text = stringAt(*table, key.c_str());
            ASSERT_TRUE(text && !text->empty()) << language << " " << key;
            size_t placeholders = 0;
            for (size_t at = text->find('%'); at != std::string::npos; at = text->find('%', at + 1))
                ++placeholders;
            EXPECT_EQ(placeholders, key == "ACKNOWLEDGEMENT_ALERT_TITLE" ? 1u : 0u) << key;
            if (placeholders) {
                EXPECT_NE(text->find("%@"), std::string::npos);
            }
        }
    }
}

class AppNames : public ::testing::Test {
  protected:
    void SetUp() override {
        writeFile(apps / "one/bundle.json",
                  R"({"identifier": "com.example.one", "name": "One", "displayName": "One App",
                      "localized": {"de": {"displayName": "Eins"}, "fr": {"name": "Un"}}})");
        writeFile(apps / "two/bundle.json", R"({"identifier": "com.example.two", "name": "Two"})");
        writeFile(apps / "none/bundle.json", R"({"identifier": "com.example.none"})");
        writeFile(apps / "broken/bundle.json", R"({"identifier": )");
        writeFile(other / "three/bundle.json", R"({"identifier": "com.example.one", "name": "X"})");
    }
    test::TempDir apps, other, data;
    test::ScopedEnv env{{"SORVEL_BUNDLE_PATH", apps.path() + "::" + other.path()},
                        {"XDG_DATA_HOME", data.path()}};
};

TEST_F(AppNames, LocalizedDisplayNameWins) {
    auto de = languageEnv("de_CH");
    EXPECT_EQ(_svLocalizedAppNameFromBundleID("com.example.one"), "Eins");
    auto fr = languageEnv("fr");  // localized entry without a display name
    EXPECT_EQ(_svLocalizedAppNameFromBundleID("com.example.one"), "One App");
    EXPECT_EQ(_svLocalizedAppNameFromBundleID("com.example.two"), "Two");
}

TEST_F(AppNames, EmptyNameAndUnknownIdentifier) {
    auto env2 = languageEnv("en");
    EXPECT_EQ(_svLocalizedAppNameFromBundleID("com.example.none"), "");
    EXPECT_EQ(_svLocalizedAppNameFromBundleID("com.example.unknown"), std::nullopt);
    EXPECT_EQ(_svLocalizedAppNameFromBundleID(""), std::nullopt);
}

TEST_F(AppNames, SearchPathAndEnclosingBundle) {
    auto path = Bundle::searchPath();
    ASSERT_GE(path.size(), 4u);
    EXPECT_EQ(path[0], apps.path());
    EXPECT_EQ(path[1], other.path());
    EXPECT_EQ(path[2], data.path() + "/sorvel/bundles");
    EXPECT_EQ(Bundle::bundleWithIdentifier("com.example.one")->bundlePath(), apps / "one");

    writeFile(apps / "one/bin/x/app", "#!");
    auto enclosing = Bundle::bundleForExecutablePath(apps / "one/bin/x/app");
    ASSERT_TRUE(enclosing);
    EXPECT_EQ(enclosing->bundleIdentifier(), "com.example.one");
    EXPECT_FALSE(Bundle::bundleForExecutablePath("/usr/bin/env"));
    EXPECT_FALSE(Bundle::bundleForExecutablePath("relative/app"));
    EXPECT_FALSE(Bundle::bundleWithPath(apps / "missing"));
    EXPECT_TRUE(Bundle::bundleWithPath(apps / "broken")->infoDictionary().empty());
}

}  // namespace
}  // namespace sv
