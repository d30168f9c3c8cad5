#include <gtest/gtest.h>

#include <algorithm>

#include "platform/system/bundle.h"
#include "platform/system/languages.h"
#include "support/localization.h"
#include "support/recording_errors.h"
#include "tests/support/test_util.h"

namespace sv {
namespace {

using test::languageEnv;
using test::writeFile;
using V = std::vector<std::string>;

TEST(PreferredLanguages, FromLocaleEnvironment) {
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

    const V available = {"en", "fr", "pt-BR", "pt"};
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

  private:
    std::unique_ptr<test::TempDir> dir_;
};
const auto* const gFramework = ::testing::AddGlobalTestEnvironment(new FrameworkEnvironment);

TEST(Localization, TablesPerLanguageInTheFrameworkBundleMadeOnce) {
    auto bundle = _svFrameworkBundle();
    ASSERT_TRUE(bundle);
    EXPECT_EQ(bundle, _svFrameworkBundle());
    EXPECT_EQ(bundle->bundlePath(), std::getenv("SORVEL_FRAMEWORK_DIR"));
    auto fr = localizedDictionaryForLanguage("fr");
    ASSERT_TRUE(fr);
    EXPECT_EQ((*fr)["HELLO"], "Bonjour");
    for (const char* missing : {"es", "it" /* not a dictionary */, "../en"})
        EXPECT_FALSE(localizedDictionaryForLanguage(missing)) << missing;
    EXPECT_EQ(bundle->localizedStringForKey("NOPE", "fallback", "Localizable"), "fallback");
    EXPECT_EQ(bundle->localizedStringForKey("HELLO", "", "Other"), "HELLO");
}

TEST(Localization, LookupFallbackRules) {
    const struct {
        const char* language;  // LANGUAGE; the other locale variables are unset
        const char* key;
        const char* expected;
    } cases[] = {
        {"fr_CA", "HELLO", "Bonjour"},  // a regional language falls back to its base
        {"pt_BR", "HELLO", "Olá"},      // but the exact table comes first
        // fr has no DE_ONLY; the lookup then stays with fr and the development
        // language (the second preferred one is never consulted): the key itself.
        {"fr_CA:de", "DE_ONLY", "DE_ONLY"},
        {"fr_CA:de", "ONLY_EN", "English only"},
        {"it", "HELLO", "Hello"},  // an unreadable table is skipped
    };
    for (const auto& c : cases) {
        auto env = languageEnv(c.language);
        EXPECT_EQ(_svLocalizedStringFromFrameworkBundleWithKey(c.key, "com.example.app"),
                  c.expected)
            << c.language << " " << c.key;
    }
    // No preferred language at all: the development language.
    test::ScopedEnv env{{"LANGUAGE", std::nullopt}, {"LC_ALL", "C"}, {"LANG", "de_DE.UTF-8"}};
    ASSERT_TRUE(preferredLanguages().empty());
    EXPECT_EQ(_svLocalizedStringFromFrameworkBundleWithKey("HELLO", "com.example.app"), "Hello");
    EXPECT_EQ(_svLocalizedStringFromFrameworkBundleWithKey("MISSING_KEY", "x"), "MISSING_KEY");
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
            // Only the title has a placeholder, and it is the object one.
            const bool title = key == "ACKNOWLEDGEMENT_ALERT_TITLE";
            EXPECT_EQ(std::count(text->begin(), text->end(), '%'), title ? 1 : 0) << key;
            EXPECT_EQ(text->find("%@") != std::string::npos, title) << key;
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

TEST_F(AppNames, LocalizedDisplayNameWinsThenDisplayNameThenName) {
    const struct {
        const char* language;
        const char* bundleID;
        std::optional<std::string> expected;
    } cases[] = {{"de_CH", "com.example.one", "Eins"},
                 {"fr", "com.example.one", "One App"},  // localized entry without a display name
                 {"fr", "com.example.two", "Two"},
                 {"en", "com.example.none", ""},
                 {"en", "com.example.unknown", std::nullopt},
                 {"en", "", std::nullopt}};
    for (const auto& c : cases) {
        auto lang = languageEnv(c.language);
        EXPECT_EQ(_svLocalizedAppNameFromBundleID(c.bundleID), c.expected) << c.bundleID;
    }
}

TEST(Dictionaries, NestingIsBoundedSoThatNoUseExhaustsTheStack) {
    auto nested = [](size_t levels) {
        return R"({"displayName": "x", "a": )" + std::string(levels, '[') +
               std::string(levels, ']') + "}";
    };
    EXPECT_TRUE(parseDictionary(nested(64)));
    EXPECT_FALSE(parseDictionary(nested(65)));
    // Copying this (as the localized entries are) used to overflow the stack.
    test::TempDir dir;
    writeFile(dir / "deep/bundle.json",
              R"({"identifier": "com.example.deep", "localized": {"en": )" + nested(200000) + "}}");
    auto bundle = Bundle::bundleWithPath(dir / "deep");
    ASSERT_TRUE(bundle);
    EXPECT_TRUE(bundle->infoDictionary().empty());
    auto lang = languageEnv("en");
    EXPECT_EQ(_svLocalizedAppName(*bundle), "");
}

TEST_F(AppNames, SearchPathAndEnclosingBundle) {
    auto path = Bundle::searchPath();
    ASSERT_GE(path.size(), 4u);
    EXPECT_EQ(V(path.begin(), path.begin() + 3),
              (V{apps.path(), other.path(), data.path() + "/sorvel/bundles"}));
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

TEST(RecordingErrors, MessagesByCode) {
    const std::pair<int64_t, const char*> table[] = {
        {-5800, "Uknown recording error"},
        {-5801, "The user declined application recording"},
        {-5802, "Recording has been restricted in settings"},
        {-5803, "Recording failed to start"},
        {-5804, "Failed during recording"},
        {-5805, "Insufficient storage for recording"},
        {-5806, "Recording interrupted by another application"},
        {-5807, "Recording interrupted by multitasking and content resizing"},
        {-5808, "Unknown recording error"},
        {-5809, "Unknown recording error"},
        {-5799, "Unknown recording error"},
        {0, "Unknown recording error"},
        {INT64_MIN, "Unknown recording error"},
    };
    for (const auto& [code, message] : table) {
        Error e = _svUserErrorForCode(code);
        EXPECT_EQ(e.domain, "org.sorvel.SVRecordingErrorDomain");
        EXPECT_EQ(e.code, code);  // kept even without a row of its own (-5809)
        EXPECT_EQ(e.localizedDescription(), message) << code;
        EXPECT_EQ(e.userInfo.size(), 1u);
    }
}

TEST(RecordingErrors, CallerDictionaryIsCopiedNotModified) {
    Value caller = {{kLocalizedDescriptionKey, "caller text"}, {"movie", "/tmp/a.mp4"}, {"n", 3}};
    const Value before = caller;
    Error e = _svUserErrorForCode(-5807, &caller);
    EXPECT_EQ(caller, before);
    EXPECT_EQ(e.userInfo, (Value{{kLocalizedDescriptionKey,
                                  "Recording interrupted by multitasking and content resizing"},
                                 {"movie", "/tmp/a.mp4"},
                                 {"n", 3}}));

    Value notADictionary = Value::array({1, 2});
    EXPECT_EQ(_svUserErrorForCode(-5801, &notADictionary).userInfo.size(), 1u);
}

TEST(RecordingErrors, WireFormRoundTripAndHostileInput) {
    Error e = _svUserErrorForCode(-5805);
    EXPECT_EQ(Error::fromValue(e.toValue()), e);
    EXPECT_FALSE(Error::fromValue(Value{{"domain", 5}, {"code", -5805}}));
    EXPECT_FALSE(Error::fromValue(Value::array()));
    auto noInfo = Error::fromValue(Value{{"domain", "d"}, {"code", 1}, {"userInfo", "x"}});
    ASSERT_TRUE(noInfo);
    EXPECT_TRUE(noInfo->userInfo.is_object());
}

}  // namespace
}  // namespace sv
