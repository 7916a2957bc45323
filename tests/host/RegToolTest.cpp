// tessel-reg, the operator's registry tool, run as an operator runs it: the real program with
// TESSEL_REGISTRY_DIR pointing at a folder of the test's own, its standard input fed from a
// pipe; the outcome is checked on its output, its exit status and in the store itself.
#ifdef TESSEL_REG_TOOL

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "support/ChildProcess.h"
#include "support/ScratchRegistry.h"
#include "tessel/platform/Registry.h"

using namespace Tessel::Platform;
using namespace std::string_literals;

namespace {

using Args = std::vector<std::string>;
using Outcome = TesselTest::RunResult;
using Stored = std::optional<std::pair<DWORD, std::string>>;

const std::string kKey = "SOFTWARE\\Tarvo Works\\GPS Velkor";
const std::string kTool = "HKLM\\" + kKey;
const std::string kFull = "HKEY_LOCAL_MACHINE\\" + kKey;
const std::string kCompleted = "The operation completed successfully.\n";
const std::string kCancelled = "The operation was cancelled by the user.\n";
const std::string kNotFound =
    "ERROR: The system was unable to find the specified registry key or value.\n";

// Runs the tool with arguments on the registry folder dir, input on its standard input.
Outcome runTool(const Args& arguments, const std::string& input, const std::string& dir) {
    Args argv{TESSEL_REG_TOOL};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    TesselTest::ChildOptions options;
    options.environment["TESSEL_REGISTRY_DIR"] = dir;
    return TesselTest::Run(argv, input, options);
}

// Whether run ended with status, out on standard output and err on standard error.
testing::AssertionResult gives(const Outcome& run, int status, const std::string& out,
                               const std::string& err = "") {
    if (run.status == status && run.out == out && run.err == err) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "status " << run.status << ", output:\n"
                                       << run.out << "error:\n"
                                       << run.err;
}

// A refusal: status 1, no output, and on standard error err, or where err does not end its
// line, the one line that begins with it.
testing::AssertionResult refused(const Outcome& run, const std::string& err) {
    const bool matches =
        err.back() == '\n' ? run.err == err
                           : run.err.rfind(err, 0) == 0 && run.err.find('\n') == run.err.size() - 1;
    return gives(run, 1, "", matches ? run.err : err);
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

Stored is(DWORD type, const std::string& data) {
    return std::make_pair(type, data);
}

// The type and bytes of a value below HKLM, through the library.
Stored value(const std::string& key, const std::string& name) {
    HKEY handle = nullptr;
    Stored found;
    DWORD type = 0, size = 0;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_READ, &handle) == ERROR_SUCCESS &&
        RegQueryValueExA(handle, name.c_str(), nullptr, &type, nullptr, &size) == ERROR_SUCCESS) {
        std::string data(size, '\0');
        if (RegQueryValueExA(handle, name.c_str(), nullptr, &type,
                             reinterpret_cast<BYTE*>(data.data()), &size) == ERROR_SUCCESS) {
            found = is(type, data.substr(0, size));
        }
    }
    RegCloseKey(handle);
    return found;
}

// The names of the values of key in their order, nullopt if there is no such key. The open
// alone may be answered from this process's cache of key ids, which knows nothing of a
// deletion by the tool; a use of the handle does.
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

void set(const std::string& key, const char* name, DWORD type, const std::string& data) {
    HKEY handle = nullptr;
    ASSERT_EQ(RegCreateKeyExA(HKEY_LOCAL_MACHINE, key.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS,
                              nullptr, &handle, nullptr),
              ERROR_SUCCESS);
    EXPECT_EQ(RegSetValueExA(handle, name, 0, type, reinterpret_cast<const BYTE*>(data.data()),
                             static_cast<DWORD>(data.size())),
              ERROR_SUCCESS);
    RegCloseKey(handle);
}

class RegTool : public testing::Test {
  protected:
    Outcome reg(const Args& arguments, const std::string& input = "") {
        return runTool(arguments, input, m_dir);
    }

    // A registry folder of its own, which this process never opens, in its temp folder.
    static std::string freshDir(const std::string& name) {
        const std::string dir = std::getenv("TMPDIR") + ("/" + name);
        std::filesystem::create_directories(dir);
        return dir;
    }

    const std::string m_dir = TesselTest::UseScratchRegistry();
};

TEST_F(RegTool, HelpExplainsUsageAndTheFolderInUse) {
    for (const char* help : {"--help", "/?", "-h"}) {
        const Outcome run = reg({help});
        EXPECT_TRUE(gives(run, 0, run.out)) << help;
        for (const std::string& part :
             {"tessel-reg query  KEY"s, "TESSEL_REGISTRY_DIR"s, "Registry folder: " + m_dir,
              "UTF-8 with LF"s, "Examples:"s}) {
            EXPECT_NE(run.out.find(part), std::string::npos) << part << "\n" << run.out;
        }
    }
    const Outcome add = reg({"ADD", "/?"});
    EXPECT_TRUE(gives(add, 0, add.out));
    EXPECT_EQ(add.out.rfind("tessel-reg add KEY", 0), 0u) << add.out;
}

TEST_F(RegTool, QueryPrintsKeysValuesAndSearchesAsRegDoes) {
    set(kKey, "Name", REG_SZ, "Rover \"A\"\0"s);
    set(kKey, "", REG_SZ, "default\0"s);
    set(kKey, "Port", REG_DWORD, "\x48\x26\0\0"s);
    set(kKey, "Blob", REG_BINARY, "\x00\x1f\xff"s);
    set(kKey, "Hosts", REG_MULTI_SZ, "a\0b\0\0"s);
    set(kKey, "Big", REG_QWORD, "\x2a\0\0\0\0\0\0\x01"s);
    set(kKey, "Path", REG_EXPAND_SZ, "%HOME%/x\0"s);
    set(kKey + "\\Sub2", "Deep", REG_SZ, "x\0"s);
    set(kKey + "\\Sub2", "port", REG_SZ, "9800\0"s);
    set(kKey + "\\Sub1\\Leaf", "v", REG_DWORD, "\1\0\0\0"s);

    const std::string port = "\n" + kFull + "\n    Port    REG_DWORD    0x2648\n\n";
    const std::string values = "\n" + kFull + "\n    Name    REG_SZ    Rover \"A\"\n" +
                               "    (Default)    REG_SZ    default\n"
                               "    Port    REG_DWORD    0x2648\n"
                               "    Blob    REG_BINARY    001FFF\n"
                               "    Hosts    REG_MULTI_SZ    a\\0b\n"
                               "    Big    REG_QWORD    0x10000000000002a\n"
                               "    Path    REG_EXPAND_SZ    %HOME%/x\n\n";
    const std::string sub2 = kFull + "\\Sub2\n    Deep    REG_SZ    x\n";
    // The arguments, the exit status and the output.
    const std::tuple<Args, int, std::string> cases[] = {
        {{"query", kTool}, 0, values + kFull + "\\Sub1\n" + kFull + "\\Sub2\n"},
        // A key without values lists only its sub-keys.
        {{"query", kTool + "\\Sub1"}, 0, "\n" + kFull + "\\Sub1\\Leaf\n"},
        // Recursion shows every key below, with or without values.
        {{"query", kTool + "\\", "/S"},
         0,
         values + kFull + "\\Sub1\n\n" + kFull + "\\Sub1\\Leaf\n    v    REG_DWORD    0x1\n\n" +
             sub2 + "    port    REG_SZ    9800\n\n"},
        {{"query", kTool, "-V", "PORT"}, 0, port},
        {{"query", kTool + "\\Sub2", "/ve"},
         0,
         "\n" + kFull + "\\Sub2\n    (Default)    REG_SZ    (value not set)\n\n"},
        {{"query", kTool, "/v", "Port", "/s"},
         0,
         port + kFull +
             "\\Sub2\n    port    REG_SZ    9800\n\nEnd of search: 2 match(es) found.\n"},
        {{"query", kTool, "/v", "Nothing", "/s"}, 1, "\nEnd of search: 0 match(es) found.\n"},
    };
    for (const auto& [arguments, status, out] : cases) {
        EXPECT_TRUE(gives(reg(arguments), status, out)) << testing::PrintToString(arguments);
    }
}

TEST_F(RegTool, RefusalsPrintRegsMessages) {
    set(kKey, "Port", REG_DWORD, "\1\0\0\0"s);
    const auto hint = [](const std::string& operation) {
        return "ERROR: Invalid syntax.\nType \"tessel-reg " + operation + "/?\" for usage.\n";
    };
    const auto addBad = [](Args options) {
        options.insert(options.begin(), {"add", kTool + "\\New", "/v", "Bad"});
        return options;
    };
    const std::string badKey = "ERROR: Invalid key name.\n";
    const std::pair<Args, std::string> cases[] = {
        {{"query", kTool + "\\Nothing"}, kNotFound},
        {{"query", kTool, "/v", "Nothing"}, kNotFound},
        {{"delete", kTool + "\\Nothing", "/f"}, kNotFound},
        {{"delete", kTool, "/v", "Nothing", "/f"}, kNotFound},
        {{"delete", kTool, "/ve", "/f"}, kNotFound},
        {{"export", kTool + "\\Nothing", m_dir + "/x.reg"}, kNotFound},
        {{}, hint("")},
        {{"list", kTool}, hint("")},
        {{"query"}, hint("query ")},
        {{"query", kTool, "/v"}, hint("query ")},
        {{"query", kTool, "/v", "a", "/ve"}, hint("query ")},
        {{"query", kTool, "/s", "/s"}, hint("query ")},
        {{"query", kTool, "/x"}, hint("query ")},
        {{"query", kTool, "extra"}, hint("query ")},
        {{"add", kTool, "/f", "/F"}, hint("add ")},
        {{"add", kTool, "/v", "x", "/t", "REG_DWORD"}, hint("add ")},  // a number needs /d
        {{"add", kTool, "/", "x"}, hint("add ")},
        {{"delete", kTool, "/v", "x", "/va"}, hint("delete ")},
        {{"export", kTool, "a.reg", "b.reg"}, hint("export ")},
        {{"query", "HKXY\\Software"}, badKey},
        {{"add", "\\\\host\\HKLM\\Software"}, badKey},
        {{"add", "HKLM\\A\\\\B"}, badKey},
        {{"add", "HKLM\\" + std::string(256, 'k')}, badKey},
        {addBad({"/t", "REG_TEXT", "/d", "x"}), "ERROR: Unsupported value type \"REG_TEXT\""},
        {addBad({"/t", "", "/d", "x"}), "ERROR: Unsupported value type \"\""},
        {addBad({"/t", "REG_DWORD", "/d", "12x"}), "ERROR: Invalid REG_DWORD data \"12x\""},
        {addBad({"/t", "REG_DWORD", "/d", "4294967296"}),
         "ERROR: Invalid REG_DWORD data \"4294967296\""},
        {addBad({"/t", "REG_DWORD", "/d", "-1"}), "ERROR: Invalid REG_DWORD data \"-1\""},
        {addBad({"/t", "REG_QWORD", "/d", "0x1ffffffffffffffff"}), "ERROR: Invalid REG_QWORD data"},
        {addBad({"/t", "REG_BINARY", "/d", "0xff"}), "ERROR: Invalid REG_BINARY data \"0xff\""},
        {addBad({"/t", "REG_MULTI_SZ", "/d", "a\\0\\0b"}), "ERROR: Invalid REG_MULTI_SZ data"},
        {addBad({"/t", "REG_MULTI_SZ", "/s", "##", "/d", "a##b"}), "ERROR: The separator of /s"},
    };
    for (const auto& [arguments, err] : cases) {
        EXPECT_TRUE(refused(reg(arguments), err)) << testing::PrintToString(arguments);
    }
    EXPECT_FALSE(std::filesystem::exists(m_dir + "/x.reg"));
    EXPECT_FALSE(valueNames("A"));
    EXPECT_FALSE(valueNames(kKey + "\\New"));  // nothing was created
}

TEST_F(RegTool, AddMakesKeysAndAsksBeforeOverwriting) {
    // Without a value option only the key is made; hive names in any case and form.
    EXPECT_TRUE(gives(reg({"add", kTool + "\\Only\\Key"}), 0, kCompleted));
    EXPECT_EQ(valueNames(kKey + "\\Only\\Key"), Args{});
    EXPECT_TRUE(gives(reg({"add", "hklm\\" + kKey, "/f"}), 0, kCompleted));
    EXPECT_TRUE(gives(reg({"add", "HKEY_local_MACHINE\\" + kKey, "/f"}), 0, kCompleted));
    EXPECT_TRUE(gives(reg({"add", "HKCU\\Software\\X", "/v", "a", "/d", "b"}), 0, kCompleted));
    EXPECT_TRUE(gives(reg({"query", "HKEY_CURRENT_USER\\software\\x", "/v", "A"}), 0,
                      "\nHKEY_CURRENT_USER\\software\\x\n    a    REG_SZ    b\n\n"));

    set(kKey, "Port", REG_DWORD, "\1\0\0\0"s);
    Args add{"add", kTool, "/v", "port", "/t", "REG_DWORD", "/d", "2"};
    const std::string question = "Value Port exists, overwrite(Yes/No)? \n";
    for (const char* answer : {"n\n", "No\n", ""}) {  // the end of the input is a no
        EXPECT_TRUE(gives(reg(add, answer), 0, question + kCancelled)) << answer;
        EXPECT_EQ(value(kKey, "Port"), is(REG_DWORD, "\1\0\0\0"s));
    }
    EXPECT_TRUE(gives(reg(add, "maybe\nYES\n"), 0, question + question + kCompleted));  // again
    EXPECT_EQ(value(kKey, "Port"), is(REG_DWORD, "\2\0\0\0"s));
    add.back() = "3";
    add.push_back("/f");
    EXPECT_TRUE(gives(reg(add, "n\n"), 0, kCompleted));
    EXPECT_EQ(value(kKey, "Port"), is(REG_DWORD, "\3\0\0\0"s));

    set(kKey, "", REG_SZ, "d\0"s);
    EXPECT_TRUE(gives(reg({"add", kTool, "/ve", "/d", "e"}, "y\n"), 0,
                      "Value (Default) exists, overwrite(Yes/No)? \n" + kCompleted));
    EXPECT_EQ(value(kKey, ""), is(REG_SZ, "e\0"s));
    EXPECT_EQ(valueNames(kKey), (Args{"Port", ""}));  // replaced in place
}

TEST_F(RegTool, DeleteAsksThenRemovesValuesOrTheWholeTree) {
    for (const char* name : {"A", "", "B"}) {
        set(kKey, name, REG_SZ, "x\0"s);
    }
    set(kKey + "\\One\\Two\\Three", "C", REG_SZ, "c\0"s);
    set("SOFTWARE\\Tarvo Works\\Neighbour", "C", REG_SZ, "c\0"s);
    const std::string question = "Delete the registry value A (Yes/No)? \n";
    EXPECT_TRUE(gives(reg({"delete", kTool, "/v", "a"}, "n\n"), 0, question + kCancelled));
    EXPECT_TRUE(value(kKey, "A"));
    EXPECT_TRUE(gives(reg({"delete", kTool, "/v", "a"}, "y\n"), 0, question + kCompleted));
    EXPECT_TRUE(gives(reg({"delete", kTool, "/ve", "/f"}), 0, kCompleted));
    EXPECT_EQ(valueNames(kKey), Args{"B"});

    set(kKey, "A", REG_SZ, "a\0"s);
    EXPECT_TRUE(
        gives(reg({"delete", kTool, "/va"}, "yes\n"), 0,
              "Delete all values under the registry key " + kTool + " (Yes/No)? \n" + kCompleted));
    EXPECT_EQ(valueNames(kKey), Args{});
    EXPECT_TRUE(value(kKey + "\\One\\Two\\Three", "C"));  // sub-keys keep theirs

    set(kKey, "A", REG_SZ, "a\0"s);
    const std::string deleteKey = "Permanently delete the registry key " + kTool + " (Yes/No)? \n";
    EXPECT_TRUE(gives(reg({"delete", kTool}, "n\n"), 0, deleteKey + kCancelled));
    EXPECT_TRUE(valueNames(kKey + "\\One\\Two\\Three"));
    EXPECT_TRUE(gives(reg({"delete", kTool}, "y\n"), 0, deleteKey + kCompleted));
    EXPECT_FALSE(valueNames(kKey));
    EXPECT_FALSE(valueNames(kKey + "\\One\\Two\\Three"));
    EXPECT_TRUE(value("SOFTWARE\\Tarvo Works\\Neighbour", "C"));
    EXPECT_TRUE(refused(reg({"delete", kTool, "/f"}), kNotFound));
    EXPECT_TRUE(refused(reg({"delete", "HKLM", "/f"}), "ERROR: Access is denied.\n"));  // a hive
    EXPECT_TRUE(valueNames("SOFTWARE\\Tarvo Works\\Neighbour"));
}

TEST_F(RegTool, AddExportAndImportKeepEveryType) {
    // The source registry lives in a folder of its own; the import goes into ours.
    const std::string source = freshDir("source");
    const std::string file = source + "/station.reg";
    const std::string umlaut = "Gr\xc3\xbc\xc3\x9f" + "e"s;
    // What is added in the source, in this order, and the value stored for it.
    const std::pair<Args, Stored> values[] = {
        {{"/v", "Name", "/d", "Rover \"A\" at C:\\data"}, is(REG_SZ, "Rover \"A\" at C:\\data\0"s)},
        {{"/v", "Port", "/t", "REG_DWORD", "/d", "9800"}, is(REG_DWORD, "\x48\x26\0\0"s)},
        {{"/ve", "/d", "default comes third"}, is(REG_SZ, "default comes third\0"s)},
        {{"/v", "Path", "/t", "reg_expand_sz", "/d", "%HOME%/gnss"},
         is(REG_EXPAND_SZ, "%HOME%/gnss\0"s)},
        {{"/v", "Hosts", "/t", "REG_MULTI_SZ", "/d", "alpha\\0b\xc3\xa9ta\\0\xe2\x82\xac"},
         is(REG_MULTI_SZ, "alpha\0b\xc3\xa9ta\0\xe2\x82\xac\0\0"s)},
        {{"/v", "Big", "/t", "REG_QWORD", "/d", "0x123456789abcdef0"},
         is(REG_QWORD, "\xf0\xde\xbc\x9a\x78\x56\x34\x12"s)},
        {{"/v", "Blob", "/t", "REG_BINARY", "/d", std::string(100, 'a') + "0f"},
         is(REG_BINARY, std::string(50, '\xaa') + "\x0f")},
        {{"/v", "Empty", "/t", "REG_BINARY"}, is(REG_BINARY, "")},
        {{"/v", umlaut, "/d", "\xc3\xbc" + "ber"s}, is(REG_SZ, "\xc3\xbc" + "ber\0"s)},
        {{"/v", "NoData"}, is(REG_SZ, "\0"s)},
        {{"/v", "Dec", "/t", "REG_DWORD", "/d", "0123"}, is(REG_DWORD, "\x7b\0\0\0"s)},
        {{"/v", "Hex", "/t", "REG_DWORD", "/d", "0xDEADBEEF"}, is(REG_DWORD, "\xef\xbe\xad\xde"s)},
        {{"/v", "Q", "/t", "REG_QWORD", "/d", "18446744073709551615"},
         is(REG_QWORD, std::string(8, '\xff'))},
        {{"/v", "Bin", "/t", "REG_BINARY", "/d", "00ff1A"}, is(REG_BINARY, "\x00\xff\x1a"s)},
        {{"/v", "Odd", "/t", "REG_BINARY", "/d", "abc"}, is(REG_BINARY, "\x0a\xbc"s)},
        {{"/v", "Multi", "/t", "REG_MULTI_SZ", "/d", "one\\0two\\0"},
         is(REG_MULTI_SZ, "one\0two\0\0"s)},
        {{"/v", "Sep", "/t", "REG_MULTI_SZ", "/s", "#", "/d", "a#b"},
         is(REG_MULTI_SZ, "a\0b\0\0"s)},
        {{"/v", "NoList", "/t", "REG_MULTI_SZ", "/d", "\\0"}, is(REG_MULTI_SZ, "\0\0"s)},
        {{"/v", "None", "/t", "REG_NONE", "/d", "x"}, is(REG_NONE, "x\0"s)},
    };
    const auto nameOf = [](const Args& add) { return add[0] == "/ve" ? "" : add[1]; };
    Args names;
    for (const auto& [add, stored] : values) {
        Args options = add;
        options.insert(options.begin(), {"add", kTool});
        EXPECT_TRUE(gives(runTool(options, "", source), 0, kCompleted)) << nameOf(add);
        names.push_back(nameOf(add));
    }
    ASSERT_EQ(runTool({"add", kTool + "\\Sub\\Deeper", "/v", "x", "/d", "1"}, "", source).status,
              0);
    ASSERT_EQ(runTool({"add", kTool + "\\Sub\\Empty"}, "", source).status, 0);

    EXPECT_TRUE(gives(runTool({"export", kTool, file}, "", source), 0, kCompleted));
    const std::string text = readFile(file);
    EXPECT_EQ(text.rfind("Windows Registry Editor Version 5.00\n\n[" + kFull + "]\n", 0), 0u);
    EXPECT_EQ(text.find('\r'), std::string::npos);
    for (const char* line :
         {"\"Name\"=\"Rover \\\"A\\\" at C:\\\\data\"\n", "\"Port\"=dword:00002648\n",
          "@=\"default comes third\"\n", "\"Big\"=hex(b):f0,de,bc,9a,78,56,34,12\n",
          "\"Path\"=hex(2):25,00,48,00,4f,00,4d,00,45,00,25,00,2f,00,67,00,6e,"
          "00,73,00,73,\\\n  00,00,00\n"}) {
        EXPECT_NE(text.find("\n"s + line), std::string::npos) << line << text;
    }
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_LE(line.size(), 80u) << line;
    }

    // Exporting onto an existing file asks first.
    EXPECT_TRUE(gives(runTool({"export", kTool, file}, "n\n", source), 0,
                      "File " + file + " already exists. Overwrite (Yes/No)? \n" + kCancelled));
    writeFile(file, "old");
    EXPECT_TRUE(gives(runTool({"export", kTool, file, "/y"}, "", source), 0, kCompleted));
    EXPECT_EQ(readFile(file), text);

    EXPECT_TRUE(gives(reg({"import", file}), 0, kCompleted));
    EXPECT_EQ(valueNames(kKey), names);
    for (const auto& [add, stored] : values) {
        EXPECT_EQ(value(kKey, nameOf(add)), stored) << nameOf(add);
    }
    EXPECT_EQ(value(kKey + "\\Sub\\Deeper", "x"), is(REG_SZ, "1\0"s));
    EXPECT_EQ(valueNames(kKey + "\\Sub\\Empty"), Args{});

    // And our copy exports to the very same text.
    EXPECT_TRUE(gives(reg({"export", kTool, m_dir + "/copy.reg"}), 0, kCompleted));
    EXPECT_EQ(readFile(m_dir + "/copy.reg"), text);
}

TEST_F(RegTool, ExportKeepsIrregularValuesExact) {
    const std::pair<const char*, Stored> values[] = {
        {"Unterminated", is(REG_SZ, "abc")},  {"TwoLines", is(REG_SZ, "a\nb\0"s)},
        {"NoBytes", is(REG_SZ, "")},          {"NotUtf8", is(REG_EXPAND_SZ, "\xff\xfe\0"s)},
        {"Short", is(REG_DWORD, "\x01\x02")}, {"Odd", is(0x100, "raw")},
    };
    for (const auto& [name, stored] : values) {
        set(kKey, name, stored->first, stored->second);
    }
    const std::string file = m_dir + "/odd.reg";
    ASSERT_TRUE(gives(reg({"export", kTool, file}), 0, kCompleted));
    const std::string text = readFile(file);
    for (const char* line : {"\"Unterminated\"=hex(1):61,00,62,00,63,00\n", "\"NoBytes\"=hex(1):\n",
                             "\"NotUtf8\"=hex(2):ff,dc,fe,dc,00,00\n", "\"Short\"=hex(4):01,02\n",
                             "\"Odd\"=hex(100):72,61,77\n"}) {
        EXPECT_NE(text.find(line), std::string::npos) << line << text;
    }
    ASSERT_TRUE(gives(reg({"delete", kTool, "/f"}), 0, kCompleted));
    ASSERT_TRUE(gives(reg({"import", file}), 0, kCompleted));
    for (const auto& [name, stored] : values) {
        EXPECT_EQ(value(kKey, name), stored) << name;
    }
}

TEST_F(RegTool, ImportsHandWrittenAndUtf16Files) {
    set(kKey + "\\Old\\Older", "x", REG_SZ, "x\0"s);
    set(kKey, "Gone", REG_SZ, "g\0"s);
    set(kKey, "Kept", REG_SZ, "k\0"s);
    const std::string file = m_dir + "/hand.reg";
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
    EXPECT_TRUE(gives(reg({"import", file}), 0, kCompleted));
    EXPECT_FALSE(valueNames(kKey + "\\Old"));
    EXPECT_EQ(valueNames(kKey), (Args{"Kept", "Indented", "", "Port", "Blob", "Path", "List"}));
    EXPECT_EQ(value(kKey, "Indented"), is(REG_SZ, "yes\0"s));
    EXPECT_EQ(value(kKey, ""), is(REG_SZ, "the default\0"s));
    EXPECT_EQ(value(kKey, "Port"), is(REG_DWORD, "\x48\x26\0\0"s));
    EXPECT_EQ(value(kKey, "Blob"), is(REG_BINARY, "\x01\x02\x03\x04\x05"));
    EXPECT_EQ(value(kKey, "Path"), is(REG_EXPAND_SZ, "%A%\0"s));
    EXPECT_EQ(value(kKey, "List"), is(REG_MULTI_SZ, "a\0b\0\0"s));
    EXPECT_TRUE(gives(reg({"query", "HKCU\\Software\\Second", "/v", "x"}), 0,
                      "\nHKEY_CURRENT_USER\\Software\\Second\n    x    REG_SZ    1\n\n"));

    // UTF-16LE with its byte order mark; ü and € as UTF-16 code units.
    writeFile(file, "\xff\xfe" +
                        utf16(withKey("Windows Registry Editor Version 5.00\r\n\r\n[$K]\r\n"
                                      "\"Station\"=\"M")) +
                        "\xfc\0"s + utf16("nchen ") + "\xac\x20" +
                        utf16("\"\r\n\"Port\"=dword:0000000a\r\n"));
    EXPECT_TRUE(gives(reg({"import", file}), 0, kCompleted));
    EXPECT_EQ(value(kKey, "Station"), is(REG_SZ, "M\xc3\xbcnchen \xe2\x82\xac\0"s));
    EXPECT_EQ(value(kKey, "Port"), is(REG_DWORD, "\x0a\0\0\0"s));
}

TEST_F(RegTool, ImportReportsWhatItCannotRead) {
    const std::string file = m_dir + "/bad.reg";
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
    EXPECT_TRUE(gives(run, 1, "", run.err));
    for (const char* line : {"line 3:", "line 6:", "line 7:", "line 8:", "line 9:", "line 11:"}) {
        EXPECT_NE(run.err.find("ERROR: " + file + ", " + line), std::string::npos)
            << line << run.err;
    }
    EXPECT_NE(run.err.find("ERROR: Not all data was successfully written to the registry.\n"),
              std::string::npos);
    EXPECT_EQ(valueNames(kKey), (Args{"Good", "After"}));

    writeFile(file, "REGEDIT5\n[HKEY_LOCAL_MACHINE\\Other]\n");
    EXPECT_TRUE(refused(reg({"import", file}), "ERROR: " + file + " is not a registry file"));
    EXPECT_FALSE(valueNames("Other"));
    EXPECT_TRUE(refused(
        reg({"import", m_dir + "/missing.reg"}),
        "ERROR: Error opening the file " + m_dir + "/missing.reg: No such file or directory.\n"));
}

TEST_F(RegTool, UnusableOrReadOnlyDatabasePrintsThePlatformText) {
    const std::string broken = freshDir("broken");
    writeFile(broken + "/HKLM.db", std::string(4096, 'x'));  // not a database
    for (const Args& arguments : {Args{"query", kTool}, Args{"add", kTool, "/v", "a", "/d", "b"}}) {
        const Outcome run = runTool(arguments, "", broken);
        EXPECT_TRUE(gives(run, 1, "", run.err)) << arguments[0];
        EXPECT_NE(run.err.find("ERROR: The configuration registry database is corrupt.\n"),
                  std::string::npos)
            << run.err;
    }
    if (::geteuid() == 0) {
        GTEST_SKIP() << "root may write a read-only registry";
    }
    const std::string readOnly = freshDir("read-only");
    ASSERT_TRUE(gives(runTool({"add", kTool, "/v", "a", "/d", "b"}, "", readOnly), 0, kCompleted));
    ::chmod((readOnly + "/HKLM.db").c_str(), 0444);
    ::chmod(readOnly.c_str(), 0555);
    const Outcome run = runTool({"add", kTool, "/v", "a", "/d", "c", "/f"}, "", readOnly);
    ::chmod(readOnly.c_str(), 0755);
    EXPECT_TRUE(refused(run, "ERROR: Access is denied.\n"));
}

}  // namespace

#endif  // TESSEL_REG_TOOL
