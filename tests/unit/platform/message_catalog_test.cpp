#include "platform/message_catalog.h"

#include "platform/catalog_file.h"
#include "platform/file_descriptor.h"
#include "platform/paths.h"
#include "tests/unit/platform/product_tree.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sys/inotify.h>
#include <vector>

namespace {

std::string catalog_path(const std::string& locale) {
    return std::string(MESSAGE_DIRECTORY) + "/" + locale + "/qvrepo.cat";
}

// Compiles a catalog of the locale; `source` is what gencat reads.
void install_catalog(const std::string& locale, const std::string& source) {
    const TemporaryDirectory directory;
    write_file(directory.path("messages"), "$ codeset=UTF-8\n" + source);
    std::filesystem::create_directories(std::filesystem::path(catalog_path(locale)).parent_path());
    const std::string command = "gencat " + catalog_path(locale) + " " + directory.path("messages");
    ASSERT_EQ(std::system(command.c_str()), 0) << command; // NOLINT(cert-env33-c): fixed words only
}

class MessageCatalog : public ProductTree {
  protected:
    void SetUp() override {
        ProductTree::SetUp();
        for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG", "NLSPATH"})
            unsetenv(variable);
    }

    static std::string lookup(const char* locale, const char* id = "TqlRpo0025N") {
        char buffer[64] = "left over";
        EXPECT_EQ(mxgetmsg(id, locale, sizeof buffer, buffer, nullptr, 0, nullptr, "default %s.", "text"), 0);
        return buffer;
    }

    static std::string messages_locale(std::size_t size = 256) {
        char buffer[256] = "left over";
        std::int64_t error = -1;
        char scratch[256];
        EXPECT_EQ(mxgetlocaleEx(buffer, size, scratch, 256, scratch, 256, scratch, 256, scratch, 256, &error),
                  0);
        EXPECT_EQ(error, 0);
        return buffer;
    }
};

using MessageLocale = MessageCatalog;

TEST_F(MessageLocale, ComesFromTheFirstVariableThatIsSetAndNotEmpty) {
    struct Row {
        const char* lc_all;
        const char* lc_messages;
        const char* lang;
        const char* expected;
    };
    for (const Row& row : {Row{"", "", "", "C"}, Row{"", "", "ja_JP.UTF-8", "ja_JP.UTF-8"},
                           Row{"", "fr_FR", "ja_JP.UTF-8", "fr_FR"}, Row{"de", "fr_FR", "ja_JP.UTF-8", "de"},
                           Row{"de_DE@euro", "", "", "de_DE@euro"}, Row{"POSIX", "fr", "de", "POSIX"},
                           Row{"C.UTF-8", "", "", "C.UTF-8"}}) {
        setenv("LC_ALL", row.lc_all, 1);
        setenv("LC_MESSAGES", row.lc_messages, 1);
        setenv("LANG", row.lang, 1);
        EXPECT_EQ(messages_locale(), row.expected);
    }
}

TEST_F(MessageLocale, IsCWithoutAnyVariable) {
    EXPECT_EQ(messages_locale(), "C");
}

TEST_F(MessageLocale, IsCForANameThatIsNone) {
    setenv("LANG", "fr_FR", 1);
    for (const char* name : {"../../etc", "/etc", "de/DE", ".", "..", "de DE", "1de", "{de", "_de", "-", "@",
                             " de", "de\n", "d\xc3\xa9", "de;ls", "de%s"}) {
        setenv("LC_ALL", name, 1);
        EXPECT_EQ(messages_locale(), "C") << name;
    }
}

TEST_F(MessageLocale, IsCForANameThatDoesNotFit) {
    setenv("LC_ALL", "abcd", 1);
    EXPECT_EQ(messages_locale(5), "abcd");
    EXPECT_EQ(messages_locale(4), "C");
}

TEST_F(MessageLocale, FillsEveryBufferThatIsThere) {
    setenv("LANG", "ja_JP.UTF-8", 1);
    char messages[32];
    char second[6];
    char fourth[32];
    char fifth[1] = {'#'};
    EXPECT_EQ(mxgetlocaleEx(messages, sizeof messages, second, sizeof second, nullptr, 10, fourth,
                            sizeof fourth, fifth, 0, nullptr),
              0);
    EXPECT_STREQ(messages, "ja_JP.UTF-8");
    EXPECT_STREQ(second, "ja_JP");
    EXPECT_STREQ(fourth, "ja_JP.UTF-8");
    EXPECT_EQ(fifth[0], '#');
}

TEST_F(MessageCatalog, UsesTheDefaultTextWithoutACatalog) {
    for (const char* locale : {"ja_JP.UTF-8", "C", "POSIX", "", "nonsense"})
        EXPECT_EQ(lookup(locale), "default text.") << locale;
    EXPECT_EQ(lookup(nullptr), "default text.");
}

TEST_F(MessageCatalog, UsesTheTextOfTheNumberInTheIdentifier) {
    install_catalog("ja", "$set 1\n25 vingt-cinq %s\n7 sept %s\n1025 mille %s\n");
    EXPECT_EQ(lookup("ja", "TqlRpo0025N"), "vingt-cinq text");
    EXPECT_EQ(lookup("ja", "TqlRpo0007N"), "sept text");
    EXPECT_EQ(lookup("ja", "TqlRpo1025N"), "mille text");
    EXPECT_EQ(lookup("ja", "TqlRpo0026N"), "default text.");
}

TEST_F(MessageCatalog, LooksInSetOneOnly) {
    install_catalog("ja", "$set 2\n25 two %s\n");
    EXPECT_EQ(lookup("ja"), "default text.");
}

TEST_F(MessageCatalog, HasNothingForAnIdentifierOfAnotherForm) {
    install_catalog("ja", "$set 1\n25 found %s\n");
    for (const char* id : {"", "25", "0025", "TqlRpo25N", "TqlRpo00x5N", "TqlRpo0000N", "TqlRpo+025N"})
        EXPECT_EQ(lookup("ja", id), "default text.") << id;
    EXPECT_EQ(lookup("ja", nullptr), "default text.");
}

TEST_F(MessageCatalog, IsLookedForFromTheNearestLocaleToTheFarthestMessageByMessage) {
    install_catalog("ja_JP.UTF-8", "$set 1\n1 full %s\n");
    install_catalog("ja_JP", "$set 1\n1 country %s\n2 country %s\n");
    install_catalog("ja", "$set 1\n1 language %s\n2 language %s\n3 language %s\n");
    EXPECT_EQ(lookup("ja_JP.UTF-8", "TqlRpo0001N"), "full text");
    EXPECT_EQ(lookup("ja_JP.UTF-8", "TqlRpo0002N"), "country text");
    EXPECT_EQ(lookup("ja_JP.UTF-8", "TqlRpo0003N"), "language text");
    EXPECT_EQ(lookup("ja_JP.UTF-8", "TqlRpo0004N"), "default text.");
    EXPECT_EQ(lookup("ja_JP.UTF-8@special", "TqlRpo0001N"), "full text");
    EXPECT_EQ(lookup("ja_JP@special", "TqlRpo0001N"), "country text");
    EXPECT_EQ(lookup("ja.eucJP", "TqlRpo0001N"), "language text");
    EXPECT_EQ(lookup("ja_XX", "TqlRpo0001N"), "language text");
    EXPECT_EQ(lookup("j", "TqlRpo0001N"), "default text.");
}

TEST_F(MessageCatalog, IsNeverUsedForThePlainLocales) {
    install_catalog("C", "$set 1\n25 C %s\n");
    install_catalog("POSIX", "$set 1\n25 POSIX %s\n");
    for (const char* locale : {"C", "POSIX", "C.UTF-8", ""})
        EXPECT_EQ(lookup(locale), "default text.") << locale;
}

TEST_F(MessageCatalog, IsNotLookedForOutsideItsDirectory) {
    install_catalog("ja", "$set 1\n25 found %s\n");
    for (const char* locale : {"../msg/ja", "./ja", "x/../ja", "/ja"})
        EXPECT_EQ(lookup(locale), "default text.") << locale;
}

TEST_F(MessageCatalog, IsNotTakenFromTheEnvironmentsPath) {
    install_catalog("ja", "$set 1\n25 found %s\n");
    std::filesystem::rename(catalog_path("ja"), "/usr/ormex/elsewhere.cat");
    setenv("NLSPATH", "/usr/ormex/elsewhere.cat", 1);
    EXPECT_EQ(lookup("ja"), "default text.");
}

TEST_F(MessageCatalog, TextWithOtherConversionsIsNotUsed) {
    install_catalog(
        "ja",
        "$set 1\n1 none\n2 two %s %s\n3 number %d\n4 written %n\n5 placed %1$s\n6 cut %\n7 fine %-8s|\n");
    for (const char* id :
         {"TqlRpo0001N", "TqlRpo0002N", "TqlRpo0003N", "TqlRpo0004N", "TqlRpo0005N", "TqlRpo0006N"})
        EXPECT_EQ(lookup("ja", id), "default text.") << id;
    EXPECT_EQ(lookup("ja", "TqlRpo0007N"), "fine text    |");
}

TEST_F(MessageCatalog, TextWithOtherConversionsIsNotReplacedByAFartherOne) {
    install_catalog("ja_JP", "$set 1\n25 country %d\n");
    install_catalog("ja", "$set 1\n25 language %s\n");
    EXPECT_EQ(lookup("ja_JP"), "default text.");
}

TEST_F(MessageCatalog, TextMayBeEmpty) {
    install_catalog("ja", "$quote \"\n$set 1\n1 \"\"\n");
    char buffer[16] = "left over";
    mxgetmsg("TqlRpo0001N", "ja", sizeof buffer, buffer, nullptr, 0, nullptr, "default");
    EXPECT_STREQ(buffer, "");
}

TEST_F(MessageCatalog, FillsTwoBuffersInTwoLocales) {
    install_catalog("fr", "$set 1\n25 num\xc3\xa9ro %d de %s\n");
    char local[64] = "";
    char english[64] = "";
    EXPECT_EQ(mxgetmsg("TqlRpo0025N", "fr_FR.UTF-8", sizeof local, local, "C", sizeof english, english,
                       "number %d of %s", 7, "x"),
              0);
    EXPECT_STREQ(local, "num\xc3\xa9ro 7 de x");
    EXPECT_STREQ(english, "number 7 of x");
}

TEST_F(MessageCatalog, LeavesTheSecondBufferAloneWithoutASecondLocale) {
    char local[64] = "";
    char english[64] = "as it was";
    mxgetmsg("TqlRpo0025N", "C", sizeof local, local, nullptr, sizeof english, english, "text");
    EXPECT_STREQ(english, "as it was");
    EXPECT_EQ(mxgetmsg("TqlRpo0025N", "C", 0, local, "C", sizeof english, nullptr, "text"), 0);
    EXPECT_STREQ(local, "text") << "a buffer of no bytes is left alone";
}

TEST_F(MessageCatalog, CutsALongTextBetweenCharacters) {
    struct Row {
        const char* text;
        std::size_t size;
        const char* expected;
    };
    for (const Row& row :
         {Row{"abcdef", 7, "abcdef"}, Row{"abcdef", 6, "abcde"}, Row{"abcdef", 1, ""},
          Row{"a\xc3\xa9", 4, "a\xc3\xa9"}, Row{"a\xc3\xa9", 3, "a"}, Row{"a\xc3\xa9z", 4, "a\xc3\xa9"},
          Row{"\xe2\x82\xac\xe2\x82\xac", 6, "\xe2\x82\xac"},
          Row{"\xe2\x82\xac\xe2\x82\xac", 5, "\xe2\x82\xac"},
          Row{"\xe2\x82\xac\xe2\x82\xac", 4, "\xe2\x82\xac"}, Row{"\xe2\x82\xac\xe2\x82\xac", 3, ""},
          Row{"\xf0\x9f\x93\xa6x", 5, "\xf0\x9f\x93\xa6"}, Row{"\xf0\x9f\x93\xa6x", 4, ""},
          Row{"\x80\x80\x80\x80\x80", 4, "\x80\x80\x80"}, Row{"\xff\xff\xff", 3, "\xff"}}) {
        char buffer[16] = "left over";
        mxgetmsg("TqlRpo0025N", "C", row.size, buffer, nullptr, 0, nullptr, "%s", row.text);
        EXPECT_STREQ(buffer, row.expected) << row.text << " in " << row.size;
    }
}

TEST_F(MessageCatalog, RendersEmptyWhatCannotBeRendered) {
    char buffer[16] = "left over";
    // The C locale has no bytes for such a wide character.
    mxgetmsg("TqlRpo0025N", "C", sizeof buffer, buffer, nullptr, 0, nullptr, "text %ls", L"\x20ac");
    EXPECT_STREQ(buffer, "");
}

TEST_F(MessageCatalog, ThatIsDamagedCountsAsMissing) {
    install_catalog("ja", "$set 1\n25 found %s\n26 more %s\n");
    const std::string sound = read_file(catalog_path("ja"));
    const auto with_word = [&](std::size_t word, std::uint32_t value) {
        std::string bytes = sound;
        std::memcpy(bytes.data() + word * sizeof value, &value, sizeof value);
        return bytes;
    };
    const std::map<std::string, std::string> table = {
        {"empty", ""},
        {"header cut", sound.substr(0, 11)},
        {"header alone", sound.substr(0, 12)},
        {"tables cut", sound.substr(0, 20)},
        {"texts cut", sound.substr(0, sound.size() - 1)},
        {"last text without end", sound + "x"},
        {"other magic", with_word(0, 0x12345678)},
        {"table of no columns", with_word(1, 0)},
        {"table of no rows", with_word(2, 0)},
        {"table larger than the file", with_word(1, 1000000)},
        {"table whose size overflows", with_word(1, 0xffffffff)},
        {"table of size zero by overflow", with_word(1, 0x80000000)},
        {"text past the file's end", with_word(5, 0x7fffffff)},
        {"over a mebibyte", sound + std::string(std::size_t{1024} * 1024, '\0')},
        {"no catalog at all", std::string(4096, '\0')},
    };
    ASSERT_EQ(lookup("ja"), "found text");
    for (const auto& [what, bytes] : table) {
        write_file(catalog_path("ja"), bytes);
        EXPECT_EQ(lookup("ja"), "default text.") << what;
    }
}

TEST_F(MessageCatalog, WhoseTextWouldLieAfterTheFileCountsAsMissing) {
    install_catalog("ja", "$set 1\n25 found %s\n26 more %s\n");
    std::string bytes = read_file(catalog_path("ja"));
    const auto word = [&](std::size_t i) {
        std::uint32_t value = 0;
        std::memcpy(&value, bytes.data() + i * sizeof value, sizeof value);
        return value;
    };
    // The entries follow three words of header, twice: set, message, place of the text.
    const std::size_t entries = std::size_t{word(1)} * word(2);
    const auto texts = static_cast<std::uint32_t>(bytes.size() - (3 + 6 * entries) * sizeof(std::uint32_t));
    for (std::size_t entry = 0; entry < entries; ++entry) {
        if (word(3 + 3 * entry + 1) == 25)
            std::memcpy(bytes.data() + (3 + 3 * entry + 2) * sizeof texts, &texts, sizeof texts);
    }
    write_file(catalog_path("ja"), bytes);
    EXPECT_EQ(lookup("ja"), "default text.");
    EXPECT_EQ(lookup("ja", "TqlRpo0026N"), "default text.") << "nothing of such a file is used";
}

TEST_F(MessageCatalog, SurvivesAnyFlippedByte) {
    install_catalog("ja", "$set 1\n25 found %s\n26 more %s\n");
    const std::string sound = read_file(catalog_path("ja"));
    for (std::size_t i = 0; i < sound.size(); ++i) {
        std::string bytes = sound;
        bytes[i] = static_cast<char>(~static_cast<unsigned char>(bytes[i]));
        write_file(catalog_path("ja"), bytes);
        const std::string text = lookup("ja");
        EXPECT_TRUE(text == "default text." || text.size() < 32) << "byte " << i << ": " << text;
    }
}

// What is checked and what is used are the same bytes: a file put in its place in between changes nothing.
TEST_F(MessageCatalog, IsOpenedOnce) {
    install_catalog("ja", "$set 1\n25 found %s\n");
    const FileDescriptor watcher(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    ASSERT_GE(inotify_add_watch(watcher.get(), catalog_path("ja").c_str(), IN_OPEN | IN_CLOSE), 0);
    ASSERT_EQ(lookup("ja"), "found text");
    std::array<inotify_event, 8> events{};
    EXPECT_EQ(read(watcher.get(), events.data(), sizeof events), ssize_t{2 * sizeof(inotify_event)});
}

TEST_F(MessageCatalog, ThatIsADirectoryCountsAsMissing) {
    std::filesystem::create_directories(catalog_path("ja"));
    EXPECT_EQ(catalog_text(catalog_path("ja"), 25), std::nullopt);
}

TEST(StatusText, NamesTheCode) {
    EXPECT_STREQ(getECmsgl(7263, 0), "status code 7263");
    EXPECT_STREQ(getECmsgl(-1, 0), "status code -1");
    EXPECT_STREQ(getECmsgl(-2147483647 - 1, 0), "status code -2147483648");
    EXPECT_EQ(getECmsgl(1, 0), getECmsgl(2, 0)) << "one buffer serves all calls";
    EXPECT_STREQ(getECmsgl(0, 0), "status code 0");
}

} // namespace
