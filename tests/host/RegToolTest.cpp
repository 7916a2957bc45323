// tessel-reg run as an operator runs it, its input on a pipe; the outcome is checked on its
// output, its exit status and in the store itself.
#ifdef TESSEL_REG_TOOL

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "host/StoredValues.h"
#include "support/ChildProcess.h"
#include "support/ScratchRegistry.h"

using namespace Tessel::Platform;
using namespace HostTest;
using namespace std::string_literals;
using testing::HasSubstr;

namespace {

using Args = std::vector<std::string>;
// A run of the tool: its exit status, standard output and standard error.
struct Outcome {
    int status;
    std::string out, err;
    bool operator==(const Outcome&) const = default;
};

void PrintTo(const Outcome& run, std::ostream* os) {
    *os << "status " << run.status << ", output:\n" << run.out << "error:\n" << run.err;
}

const std::string kKey = "SOFTWARE\\Tarvo Works\\GPS Velkor";
const std::string kTool = "HKLM\\" + kKey;
const std::string kFull = "HKEY_LOCAL_MACHINE\\" + kKey;
const std::string kCompleted = "The operation completed successfully.\n";
const std::string kCancelled = "The operation was cancelled by the user.\n";
const std::string kNotFound =
    "ERROR: The system was unable to find the specified registry key or value.\n";

const std::string& registryDir() {
    return TesselTest::UseScratchRegistry();
}

// Runs the tool with arguments on the registry folder dir, input on its standard input.
Outcome reg(const Args& arguments, const std::string& input = "",
            const std::string& dir = registryDir()) {
    Args argv{TESSEL_REG_TOOL};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    TesselTest::ChildOptions options;
    options.environment["TESSEL_REGISTRY_DIR"] = dir;
    const TesselTest::RunResult run = TesselTest::Run(argv, input, options);
    return {run.status, run.out, run.err};
}

Outcome done(const std::string& out) {
    return {0, out, ""};
}

Outcome refusal(const std::string& err) {
    return {1, "", err};
}

std::string readFile(const std::string& path) {
    std::stringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

// ASCII text as UTF-16LE bytes.
std::string utf16(const std::string& ascii) {
    std::string out;
    for (char c : ascii) {
        out += c + "\0"s;
    }
    return out;
}

// text with every "$K" replaced by the full name of the test key.
std::string withKey(std::string text) {
    for (std::size_t at; (at = text.find("$K")) != std::string::npos;) {
        text.replace(at, 2, kFull);
    }
    return text;
}

// The names of the values of key in their order, nullopt if there is no such key. A use of the
// handle, not the open alone, sees a deletion by the tool.
std::optional<Args> valueNames(const std::string& key) {
    HKEY handle = nullptr;
    DWORD count = 0;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_READ, &handle) != ERROR_SUCCESS ||
        RegQueryInfoKeyA(handle, nullptr, nullptr, &count, nullptr, nullptr) != ERROR_SUCCESS) {
        RegCloseKey(handle);
        return std::nullopt;
    }
    Args names;
    char name[256];
    for (DWORD i = 0, length = sizeof name; i < count; ++i, length = sizeof name) {
        EXPECT_EQ(RegEnumValueA(handle, i, name, &length, nullptr, nullptr, nullptr, nullptr),
                  ERROR_SUCCESS);
        names.emplace_back(name, length);
    }
    RegCloseKey(handle);
    return names;
}

TEST(RegTool, HelpExplainsUsageAndTheFolderInUse) {
    for (const char* help : {"--help", "/?", "-h"}) {
        const Outcome run = reg({help});
        EXPECT_EQ(run, done(run.out)) << help;
        for (const std::string& part :
             {"tessel-reg query  KEY"s, "UTF-8 with LF"s,
              "Registry folder: " + registryDir() + "  (from TESSEL_REGISTRY_DIR)"}) {
            EXPECT_THAT(run.out, HasSubstr(part));
        }
    }
    const Outcome add = reg({"ADD", "/?"});
    EXPECT_EQ(add, done(add.out));
    EXPECT_THAT(add.out, testing::StartsWith("tessel-reg add KEY"));
}

TEST(RegTool, QueryPrintsKeysValuesAndSearchesAsRegDoes) {
    setStored(kKey, "Name", REG_SZ, "Rover \"A\"\0"s);
    setStored(kKey, "", REG_SZ, "default\0"s);
    setStored(kKey, "Port", REG_DWORD, "\x48\x26\0\0"s);
    setStored(kKey, "Blob", REG_BINARY, "\x00\x1f\xff"s);
    setStored(kKey, "Hosts", REG_MULTI_SZ, "a\0b\0\0"s);
    setStored(kKey, "Big", REG_QWORD, "\x2a\0\0\0\0\0\0\x01"s);
    setStored(kKey, "Path", REG_EXPAND_SZ, "%HOME%/x\0"s);
    setStored(kKey + "\\Sub2", "port", REG_SZ, "9800\0"s);
    setStored(kKey + "\\Sub1\\Leaf", "v", REG_DWORD, "\1\0\0\0"s);

    const std::string port = "\n" + kFull + "\n    Port    REG_DWORD    0x2648\n\n";
    const std::string values = "\n" + kFull + "\n    Name    REG_SZ    Rover \"A\"\n" +
                               "    (Default)    REG_SZ    default\n"
                               "    Port    REG_DWORD    0x2648\n"
                               "    Blob    REG_BINARY    001FFF\n"
                               "    Hosts    REG_MULTI_SZ    a\\0b\n"
                               "    Big    REG_QWORD    0x10000000000002a\n"
                               "    Path    REG_EXPAND_SZ    %HOME%/x\n\n";
    const std::string sub2 = kFull + "\\Sub2\n    port    REG_SZ    9800\n\n";
    const std::pair<Args, Outcome> cases[] = {
        {{"query", kTool}, done(values + kFull + "\\Sub1\n" + kFull + "\\Sub2\n")},
        // A key without values lists only its sub-keys.
        {{"query", kTool + "\\Sub1"}, done("\n" + kFull + "\\Sub1\\Leaf\n")},
        // Recursion shows every key below, with or without values.
        {{"query", kTool + "\\", "/S"},
         done(values + kFull + "\\Sub1\n\n" + kFull +
              "\\Sub1\\Leaf\n    v    REG_DWORD    0x1\n\n" + sub2)},
        {{"query", kTool, "-V", "PORT"}, done(port)},
        {{"query", kTool + "\\Sub2", "/ve"},
         done("\n" + kFull + "\\Sub2\n    (Default)    REG_SZ    (value not set)\n\n")},
        {{"query", kTool, "/v", "Port", "/s"},
         done(port + sub2 + "End of search: 2 match(es) found.\n")},
        {{"query", kTool, "/v", "Nothing", "/s"}, {1, "\nEnd of search: 0 match(es) found.\n", ""}},
    };
    for (const auto& [arguments, outcome] : cases) {
        EXPECT_EQ(reg(arguments), outcome) << testing::PrintToString(arguments);
    }
}

// One row for each way of refusing in the tool's code.
TEST(RegTool, RefusalsPrintRegsMessages) {
    setStored(kKey, "Port", REG_DWORD, "\1\0\0\0"s);
    const auto hint = [](const std::string& operation) {
        return "ERROR: Invalid syntax.\nType \"tessel-reg " + operation + "/?\" for usage.\n";
    };
    const auto addBad = [](Args options) {
        options.insert(options.begin(), {"add", kTool + "\\New", "/v", "Bad"});
        return options;
    };
    const std::string badKey = "ERROR: Invalid key name.\n";
    const std::string exported = registryDir() + "/x.reg";
    const std::pair<Args, std::string> cases[] = {
        {{"query", kTool + "\\Nothing"}, kNotFound},
        {{"query", kTool, "/v", "Nothing"}, kNotFound},
        {{"delete", kTool + "\\Nothing", "/f"}, kNotFound},
        {{"delete", kTool, "/v", "Nothing", "/f"}, kNotFound},
        {{"export", kTool + "\\Nothing", exported}, kNotFound},
        {{}, hint("")},
        {{"list", kTool}, hint("")},
        {{"query"}, hint("query ")},
        {{"query", kTool, "/v"}, hint("query ")},
        {{"query", kTool, "/v", "a", "/ve"}, hint("query ")},
        {{"query", kTool, "/s", "/s"}, hint("query ")},
        {{"query", kTool, "/x"}, hint("query ")},
        {{"query", kTool, "extra"}, hint("query ")},
        {{"add", kTool, "/v", "x", "/t", "REG_DWORD"}, hint("add ")},  // a number needs /d
        {{"delete", kTool, "/v", "x", "/va"}, hint("delete ")},
        {{"export", kTool, "a.reg", "b.reg"}, hint("export ")},
        {{"query", "HKXY\\Software"}, badKey},
        {{"add", "HKLM\\A\\\\B"}, badKey},
        {{"add", "HKLM\\" + std::string(256, 'k')}, badKey},
        {addBad({"/t", "REG_TEXT", "/d", "x"}), "ERROR: Unsupported value type \"REG_TEXT\""},
        {addBad({"/t", "REG_DWORD", "/d", "12x"}), "ERROR: Invalid REG_DWORD data \"12x\""},
        {addBad({"/t", "REG_DWORD", "/d", "4294967296"}),
         "ERROR: Invalid REG_DWORD data \"4294967296\""},
        {addBad({"/t", "REG_QWORD", "/d", "0x1ffffffffffffffff"}), "ERROR: Invalid REG_QWORD data"},
        {addBad({"/t", "REG_BINARY", "/d", "0xff"}), "ERROR: Invalid REG_BINARY data \"0xff\""},
        {addBad({"/t", "REG_MULTI_SZ", "/d", "a\\0\\0b"}), "ERROR: Invalid REG_MULTI_SZ data"},
        {addBad({"/t", "REG_MULTI_SZ", "/s", "##", "/d", "a##b"}), "ERROR: The separator of /s"},
    };
    for (const auto& [arguments, err] : cases) {
        Outcome run = reg(arguments);
        // A message given by its beginning stands for the one line that begins with it.
        if (err.back() != '\n' && run.err.rfind(err, 0) == 0 &&
            run.err.find('\n') + 1 == run.err.size()) {
            run.err = err;
        }
        EXPECT_EQ(run, refusal(err)) << testing::PrintToString(arguments);
    }
    EXPECT_FALSE(std::filesystem::exists(exported));
    EXPECT_FALSE(valueNames("A"));
    EXPECT_FALSE(valueNames(kKey + "\\New"));  // nothing was created
}

TEST(RegTool, AddMakesKeysAndAsksBeforeOverwriting) {
    // Without a value option only the key is made; hive names in any case and form.
    EXPECT_EQ(reg({"add", kTool + "\\Only\\Key"}), done(kCompleted));
    EXPECT_EQ(valueNames(kKey + "\\Only\\Key"), Args{});
    EXPECT_EQ(reg({"add", "hklm\\" + kKey, "/f"}), done(kCompleted));
    EXPECT_EQ(reg({"add", "HKEY_local_MACHINE\\" + kKey, "/f"}), done(kCompleted));

    setStored(kKey, "Port", REG_DWORD, "\1\0\0\0"s);
    Args add{"add", kTool, "/v", "port", "/t", "REG_DWORD", "/d", "2"};
    const std::string question = "Value Port exists, overwrite(Yes/No)? \n";
    for (const char* answer : {"No\n", ""}) {  // the end of the input is a no
        EXPECT_EQ(reg(add, answer), done(question + kCancelled)) << answer;
        EXPECT_EQ(stored(kKey, "Port"), is(REG_DWORD, "\1\0\0\0"s));
    }
    EXPECT_EQ(reg(add, "maybe\nYES\n"), done(question + question + kCompleted));  // again
    EXPECT_EQ(stored(kKey, "Port"), is(REG_DWORD, "\2\0\0\0"s));
    add.back() = "3";
    add.push_back("/f");
    EXPECT_EQ(reg(add, "n\n"), done(kCompleted));
    EXPECT_EQ(stored(kKey, "Port"), is(REG_DWORD, "\3\0\0\0"s));

    setStored(kKey, "", REG_SZ, "d\0"s);
    EXPECT_EQ(reg({"add", kTool, "/ve", "/d", "e"}, "y\n"),
              done("Value (Default) exists, overwrite(Yes/No)? \n" + kCompleted));
    EXPECT_EQ(stored(kKey, ""), is(REG_SZ, "e\0"s));
}

TEST(RegTool, DeleteAsksThenRemovesValuesOrTheWholeTree) {
    for (const char* name : {"A", "", "B"}) {
        setStored(kKey, name, REG_SZ, "x\0"s);
    }
    setStored(kKey + "\\One\\Two\\Three", "C", REG_SZ, "c\0"s);
    const std::string neighbour = "SOFTWARE\\Tarvo Works\\Neighbour";
    setStored(neighbour, "C", REG_SZ, "c\0"s);
    const std::string question = "Delete the registry value A (Yes/No)? \n";
    EXPECT_EQ(reg({"delete", kTool, "/v", "a"}, "n\n"), done(question + kCancelled));
    EXPECT_TRUE(stored(kKey, "A"));
    EXPECT_EQ(reg({"delete", kTool, "/v", "a"}, "y\n"), done(question + kCompleted));
    EXPECT_EQ(reg({"delete", kTool, "/ve", "/f"}), done(kCompleted));
    EXPECT_EQ(valueNames(kKey), Args{"B"});

    setStored(kKey, "A", REG_SZ, "a\0"s);
    EXPECT_EQ(
        reg({"delete", kTool, "/va"}, "yes\n"),
        done("Delete all values under the registry key " + kTool + " (Yes/No)? \n" + kCompleted));
    EXPECT_EQ(valueNames(kKey), Args{});
    EXPECT_TRUE(stored(kKey + "\\One\\Two\\Three", "C"));  // sub-keys keep theirs

    EXPECT_EQ(reg({"delete", "HKLM", "/f"}), refusal("ERROR: Access is denied.\n"));  // a hive
    EXPECT_EQ(reg({"delete", kTool}, "y\n"),
              done("Permanently delete the registry key " + kTool + " (Yes/No)? \n" + kCompleted));
    EXPECT_FALSE(valueNames(kKey));
    EXPECT_FALSE(valueNames(kKey + "\\One\\Two\\Three"));
    EXPECT_TRUE(stored(neighbour, "C"));
}

TEST(RegTool, AddExportAndImportKeepEveryValue) {
    const std::string file = registryDir() + "/station.reg";
    // What is added, in this order, and the value stored for it.
    const std::pair<Args, Stored> added[] = {
        {{"/v", "Name", "/d", "Rover \"A\" at C:\\data"}, is(REG_SZ, "Rover \"A\" at C:\\data\0"s)},
        {{"/v", "Port", "/t", "REG_DWORD", "/d", "9800"}, is(REG_DWORD, "\x48\x26\0\0"s)},
        {{"/ve", "/d", "default comes third"}, is(REG_SZ, "default comes third\0"s)},
        {{"/v", "Path", "/t", "reg_expand_sz", "/d", "%HOME%/gnss"},
         is(REG_EXPAND_SZ, "%HOME%/gnss\0"s)},
        {{"/v", "Hosts", "/t", "REG_MULTI_SZ", "/d", "alpha\\0b\xc3\xa9ta\\0\xe2\x82\xac"},
         is(REG_MULTI_SZ, "alpha\0b\xc3\xa9ta\0\xe2\x82\xac\0\0"s)},
        {{"/v", "Big", "/t", "REG_QWORD", "/d", "0x123456789abcdef0"},
         is(REG_QWORD, "\xf0\xde\xbc\x9a\x78\x56\x34\x12"s)},
        {{"/v", "Blob", "/t", "REG_BINARY", "/d", std::string(100, 'a') + "0F"},
         is(REG_BINARY, std::string(50, '\xaa') + "\x0f")},
        {{"/v", "NoData"}, is(REG_SZ, "\0"s)},
        {{"/v", "Dec", "/t", "REG_DWORD", "/d", "0123"}, is(REG_DWORD, "\x7b\0\0\0"s)},
        {{"/v", "Hex", "/t", "REG_DWORD", "/d", "0xDEADBEEF"}, is(REG_DWORD, "\xef\xbe\xad\xde"s)},
        {{"/v", "Q", "/t", "REG_QWORD", "/d", "18446744073709551615"},
         is(REG_QWORD, std::string(8, '\xff'))},
        {{"/v", "Odd", "/t", "REG_BINARY", "/d", "abc"}, is(REG_BINARY, "\x0a\xbc"s)},
        {{"/v", "Multi", "/t", "REG_MULTI_SZ", "/d", "one\\0two\\0"},
         is(REG_MULTI_SZ, "one\0two\0\0"s)},
        {{"/v", "Sep", "/t", "REG_MULTI_SZ", "/s", "#", "/d", "a#b"},
         is(REG_MULTI_SZ, "a\0b\0\0"s)},
        {{"/v", "NoList", "/t", "REG_MULTI_SZ", "/d", "\\0"}, is(REG_MULTI_SZ, "\0\0"s)},
        {{"/v", "None", "/t", "REG_NONE", "/d", "x"}, is(REG_NONE, "x\0\0\0"s)},
    };
    // Values that the quoted form cannot hold exactly, set past the tool.
    const std::pair<std::string, Stored> irregular[] = {
        {"Unterminated", is(REG_SZ, "abc")},  {"TwoLines", is(REG_SZ, "a\nb\0"s)},
        {"NoBytes", is(REG_SZ, "")},          {"NotUtf8", is(REG_EXPAND_SZ, "\xff\xfe\0"s)},
        {"Short", is(REG_DWORD, "\x01\x02")}, {"Type100", is(0x100, "raw")},
    };
    std::vector<std::pair<std::string, Stored>> values;
    for (const auto& [add, value] : added) {
        Args arguments{"add", kTool};
        arguments.insert(arguments.end(), add.begin(), add.end());
        EXPECT_EQ(reg(arguments), done(kCompleted)) << add[1];
        values.emplace_back(add[0] == "/ve" ? "" : add[1], value);
    }
    for (const auto& [name, value] : irregular) {
        setStored(kKey, name, value->first, value->second);
        values.emplace_back(name, value);
    }
    ASSERT_EQ(reg({"add", kTool + "\\Sub\\Deeper", "/v", "x", "/d", "1"}).status, 0);
    ASSERT_EQ(reg({"add", kTool + "\\Sub\\Empty"}).status, 0);

    EXPECT_EQ(reg({"export", kTool, file, "/utf8"}), done(kCompleted));
    const std::string text = readFile(file);
    EXPECT_THAT(text,
                testing::StartsWith("Windows Registry Editor Version 5.00\n\n[" + kFull + "]\n"));
    EXPECT_EQ(text.find('\r'), std::string::npos);
    for (const char* line :
         {"\"Name\"=\"Rover \\\"A\\\" at C:\\\\data\"\n", "\"Port\"=dword:00002648\n",
          "@=\"default comes third\"\n", "\"Big\"=hex(b):f0,de,bc,9a,78,56,34,12\n",
          "\"Path\"=hex(2):25,00,48,00,4f,00,4d,00,45,00,25,00,2f,00,67,00,6e,"
          "00,73,00,73,\\\n  00,00,00\n",
          "\"Unterminated\"=hex(1):61,00,62,00,63,00\n", "\"NoBytes\"=hex(1):\n",
          "\"NotUtf8\"=hex(2):ff,dc,fe,dc,00,00\n", "\"Short\"=hex(4):01,02\n",
          "\"Type100\"=hex(100):72,61,77\n"}) {
        EXPECT_THAT(text, HasSubstr("\n"s + line));
    }
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_LE(line.size(), 80u) << line;
    }

    // Exporting onto an existing file asks first.
    EXPECT_EQ(reg({"export", kTool, file, "/utf8"}, "n\n"),
              done("File " + file + " already exists. Overwrite (Yes/No)? \n" + kCancelled));
    writeFile(file, "old");
    EXPECT_EQ(reg({"export", kTool, file, "/y", "/utf8"}), done(kCompleted));
    EXPECT_EQ(readFile(file), text);

    // Imported in place of the deleted key, every value comes back as it was.
    ASSERT_EQ(reg({"delete", kTool, "/f"}), done(kCompleted));
    EXPECT_EQ(reg({"import", file}), done(kCompleted));
    Args names;
    for (const auto& [name, value] : values) {
        EXPECT_EQ(stored(kKey, name), value) << name;
        names.push_back(name);
    }
    EXPECT_EQ(valueNames(kKey), names);
    EXPECT_EQ(stored(kKey + "\\Sub\\Deeper", "x"), is(REG_SZ, "1\0"s));
    EXPECT_EQ(valueNames(kKey + "\\Sub\\Empty"), Args{});
    // And they export to the very same text.
    EXPECT_EQ(reg({"export", kTool, file, "/y", "/utf8"}), done(kCompleted));
    EXPECT_EQ(readFile(file), text);
}

// text as UTF-16LE bytes, in the compiler's encoding of the literal.
std::string utf16le(std::u16string_view text) {
    std::string out;
    for (char16_t unit : text) {
        out += static_cast<char>(unit & 0xFF);
        out += static_cast<char>(unit >> 8);
    }
    return out;
}

// The bytes first to last (inclusive), each as "xx," in the hex lines of a registry file.
std::u16string hexRun(int first, int last) {
    std::u16string out;
    for (int b = first; b <= last; ++b) {
        const char16_t digits[] = u"0123456789abcdef";
        out += {digits[b >> 4], digits[b & 0xF], u','};
    }
    return out;
}

TEST(RegTool, ExportWritesWhatThePlatformsToolsWriteByteForByte) {
    const std::string file = registryDir() + "/utf16.reg";
    std::string blob;
    for (int b = 0; b < 50; ++b) {
        blob += static_cast<char>(b);
    }
    const std::string sub = kKey + "\\Z\xc3\xbcrich";
    setStored(kKey, "Name", REG_SZ, "Rover \"A\" at C:\\ \xe2\x82\xac\0"s);
    setStored(kKey, "H\xc3\xb6he", REG_DWORD, "\x48\x26\0\0"s);
    setStored(kKey, "", REG_SZ, "M\xc3\xbcnchen\0"s);
    setStored(kKey, "Big", REG_QWORD, "\xf0\xde\xbc\x9a\x78\x56\x34\x12"s);
    setStored(kKey, "Blob", REG_BINARY, blob);
    setStored(kKey, "Path", REG_EXPAND_SZ, "%A%\xc3\xbc\0"s);
    setStored(kKey, "List", REG_MULTI_SZ, "a\0\xe2\x82\xac\0\0"s);
    ASSERT_EQ(reg({"add", kTool, "/v", "None", "/t", "REG_NONE", "/d", "ab"}), done(kCompleted));
    setStored(sub, "x", REG_SZ, "1\0"s);
    const std::string golden =
        "\xff\xfe" + utf16le(
                         u"Windows Registry Editor Version 5.00\r\n"
                         u"\r\n"
                         u"[HKEY_LOCAL_MACHINE\\SOFTWARE\\Tarvo Works\\GPS Velkor]\r\n"
                         u"\"Name\"=\"Rover \\\"A\\\" at C:\\\\ \u20ac\"\r\n"
                         u"\"H\u00f6he\"=dword:00002648\r\n"
                         u"@=\"M\u00fcnchen\"\r\n"
                         u"\"Big\"=hex(b):f0,de,bc,9a,78,56,34,12\r\n"
                         u"\"Blob\"=hex:" +
                         hexRun(0x00, 0x15) + u"\\\r\n  " + hexRun(0x16, 0x2e) + u"\\\r\n  " +
                         u"2f,30,31\r\n"
                         u"\"Path\"=hex(2):25,00,41,00,25,00,fc,00,00,00\r\n"
                         u"\"List\"=hex(7):61,00,00,00,ac,20,00,00,00,00\r\n"
                         u"\"None\"=hex(0):61,00,62,00,00,00\r\n"
                         u"\r\n"
                         u"[HKEY_LOCAL_MACHINE\\SOFTWARE\\Tarvo Works\\GPS Velkor\\Z\u00fcrich]\r\n"
                         u"\"x\"=\"1\"\r\n"
                         u"\r\n");
    const auto values = [&] {
        std::vector<Stored> all;
        for (const char* name :
             {"Name", "H\xc3\xb6he", "", "Big", "Blob", "Path", "List", "None"}) {
            all.push_back(stored(kKey, name));
        }
        all.push_back(stored(sub, "x"));
        return all;
    };
    const std::vector<Stored> before = values();

    EXPECT_EQ(reg({"export", kTool, file}), done(kCompleted));
    EXPECT_EQ(readFile(file), golden);
    // Imported in place of the deleted key, the golden file gives every value back, and they
    // export to the same bytes again.
    ASSERT_EQ(reg({"delete", kTool, "/f"}), done(kCompleted));
    writeFile(file, golden);
    EXPECT_EQ(reg({"import", file}), done(kCompleted));
    EXPECT_EQ(values(), before);
    EXPECT_EQ(reg({"export", kTool, file, "/y"}), done(kCompleted));
    EXPECT_EQ(readFile(file), golden);
}

TEST(RegTool, Regedit4FilesAreReadAsWindows1252UnlessTheyAreUtf8) {
    const std::string file = registryDir() + "/ansi.reg";
    // 0xFC is ü, 0x80 the euro sign, 0x84 and 0x93 low and high double quotes.
    writeFile(file, withKey("REGEDIT4\r\n\r\n[$K\\M\xfcnchen]\r\n"
                            "\"Pr\xfc"
                            "fung\"=\"5 \x80 f\xfcr \x84"
                            "A\x93\"\r\n"
                            "\"Path\"=hex(2):25,41,25,fc,00\r\n"));
    EXPECT_EQ(reg({"import", file}), done(kCompleted));
    const std::string key = kKey + "\\M\xc3\xbcnchen";
    EXPECT_EQ(stored(key,
                     "Pr\xc3\xbc"
                     "fung"),
              is(REG_SZ,
                 "5 \xe2\x82\xac f\xc3\xbcr \xe2\x80\x9e"
                 "A\xe2\x80\x9c\0"s));
    EXPECT_EQ(stored(key, "Path"), is(REG_EXPAND_SZ, "%A%\xc3\xbc\0"s));

    // A REGEDIT4 file that a Linux tool wrote in UTF-8 keeps its characters.
    writeFile(file, withKey("REGEDIT4\n\n[$K]\n\"Station\"=\"M\xc3\xbcnchen\"\n"));
    EXPECT_EQ(reg({"import", file}), done(kCompleted));
    EXPECT_EQ(stored(kKey, "Station"), is(REG_SZ, "M\xc3\xbcnchen\0"s));
}

TEST(RegTool, ImportsHandWrittenAndUtf16Files) {
    setStored(kKey + "\\Old\\Older", "x", REG_SZ, "x\0"s);
    setStored(kKey, "Gone", REG_SZ, "g\0"s);
    setStored(kKey, "Kept", REG_SZ, "k\0"s);
    const std::string file = registryDir() + "/hand.reg";
    writeFile(file, withKey("\xEF\xBB\xBFWindows Registry Editor Version 5.00\r\n\r\n"
                            "; written by hand\r\n"
                            "[-$K\\Old]\r\n"
                            "\"Ignored\"=\"the key was deleted\"\r\n\r\n"
                            "[$K]\r\n"
                            "\"Gone\"=-\r\n"
                            "\"Missing\"=- ; deleting what is not there is fine\r\n"
                            "  \"Indented\" = \"yes\"\r\n"
                            "# another comment\r\n"
                            "@=\"the default\"\r\n"
                            "\"Port\"=dword:2648 ; a comment\r\n"
                            "\"Blob\"=hex:01,02,\\\r\n"
                            "  03,04,\\  ; a comment\r\n\r\n"
                            "  ; and one between\r\n"
                            "  05\r\n"
                            "\"Path\"=hex(2):25,00,41,00,25,00,00,00\r\n"
                            "\"List\"=hex(7):61,00,00,00,62,00,00,00,00,00\r\n\r\n"
                            "[HKCU\\Software\\Second]\r\n"
                            "\"x\"=\"1\"\r\n"));
    EXPECT_EQ(reg({"import", file}), done(kCompleted));
    EXPECT_FALSE(valueNames(kKey + "\\Old"));
    EXPECT_EQ(valueNames(kKey), (Args{"Kept", "Indented", "", "Port", "Blob", "Path", "List"}));
    EXPECT_EQ(stored(kKey, "Indented"), is(REG_SZ, "yes\0"s));
    EXPECT_EQ(stored(kKey, ""), is(REG_SZ, "the default\0"s));
    EXPECT_EQ(stored(kKey, "Port"), is(REG_DWORD, "\x48\x26\0\0"s));
    EXPECT_EQ(stored(kKey, "Blob"), is(REG_BINARY, "\x01\x02\x03\x04\x05"));
    EXPECT_EQ(stored(kKey, "Path"), is(REG_EXPAND_SZ, "%A%\0"s));
    EXPECT_EQ(stored(kKey, "List"), is(REG_MULTI_SZ, "a\0b\0\0"s));
    EXPECT_EQ(reg({"query", "HKCU\\Software\\Second", "/v", "x"}),
              done("\nHKEY_CURRENT_USER\\Software\\Second\n    x    REG_SZ    1\n\n"));

    // UTF-16LE with its byte order mark; ü and € as UTF-16 code units.
    writeFile(file, "\xff\xfe" +
                        utf16(withKey("Windows Registry Editor Version 5.00\r\n\r\n[$K]\r\n"
                                      "\"Station\"=\"M")) +
                        "\xfc\0"s + utf16("nchen ") + "\xac\x20" +
                        utf16("\"\r\n\"Port\"=dword:0000000a\r\n"));
    EXPECT_EQ(reg({"import", file}), done(kCompleted));
    EXPECT_EQ(stored(kKey, "Station"), is(REG_SZ, "M\xc3\xbcnchen \xe2\x82\xac\0"s));
    EXPECT_EQ(stored(kKey, "Port"), is(REG_DWORD, "\x0a\0\0\0"s));
}

TEST(RegTool, ImportReportsWhatItCannotRead) {
    const std::string file = registryDir() + "/bad.reg";
    writeFile(file, withKey("Windows Registry Editor Version 5.00\n\n"
                            "\"Early\"=\"before any key\"\n"
                            "[$K]\n"
                            "\"Good\"=\"1\"\n"
                            "\"Bad\"=dword:123456789\n"
                            "this is no registry line\n"
                            "\"Hex\"=hex:01,zz\n"
                            "\"Cut\"=hex:01,02\\\n"
                            "\"After\"=\"2\"\n"
                            "[HKEY_NOWHERE\\x]\n"
                            "\"Lost\"=\"3\"\n"));
    const Outcome run = reg({"import", file});
    EXPECT_EQ(run, refusal(run.err));
    for (const char* line : {"line 3:", "line 6:", "line 7:", "line 8:", "line 9:", "line 11:"}) {
        EXPECT_THAT(run.err, HasSubstr("ERROR: " + file + ", " + line));
    }
    EXPECT_THAT(run.err,
                HasSubstr("ERROR: Not all data was successfully written to the registry.\n"));
    EXPECT_EQ(valueNames(kKey), (Args{"Good", "After"}));

    writeFile(file, "REGEDIT5\n[HKEY_LOCAL_MACHINE\\Other]\n");
    EXPECT_EQ(reg({"import", file}),
              refusal("ERROR: " + file + " is not a registry file: its first line must be " +
                      "\"Windows Registry Editor Version 5.00\".\n"));
    EXPECT_FALSE(valueNames("Other"));
    EXPECT_EQ(reg({"import", registryDir() + "/missing.reg"}),
              refusal("ERROR: Error opening the file " + registryDir() +
                      "/missing.reg: No such file or directory.\n"));
}

TEST(RegTool, UnusableDatabasePrintsThePlatformText) {
    const std::string broken = std::getenv("TMPDIR") + "/broken"s;  // never opened here
    std::filesystem::create_directories(broken);
    writeFile(broken + "/HKLM.db", std::string(4096, 'x'));  // not a database
    for (const Args& arguments : {Args{"query", kTool}, Args{"add", kTool, "/v", "a", "/d", "b"}}) {
        const Outcome run = reg(arguments, "", broken);
        EXPECT_EQ(run, refusal(run.err)) << arguments[0];
        EXPECT_THAT(run.err, HasSubstr("ERROR: The configuration registry database is corrupt.\n"));
    }
}

}  // namespace

#endif  // TESSEL_REG_TOOL
