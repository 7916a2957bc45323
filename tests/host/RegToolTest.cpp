// tessel-reg, the operator's registry tool, run as an operator runs it: the real program with
// TESSEL_REGISTRY_DIR pointing at a folder of the test's own, its standard input fed from a
// pipe; the outcome is checked on its output, its exit status and in the store itself.
#ifdef TESSEL_REG_TOOL

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "support/ScratchRegistry.h"
#include "tessel/platform/Registry.h"

extern char** environ;

using namespace Tessel::Platform;

namespace {

struct Outcome {
    int status = -1;
    std::string out;
    std::string err;
};

std::string readAll(int fd) {
    std::string text;
    char buffer[4096];
    ::lseek(fd, 0, SEEK_SET);
    for (ssize_t got; (got = ::read(fd, buffer, sizeof buffer)) > 0;) {
        text.append(buffer, static_cast<std::size_t>(got));
    }
    return text;
}

// Runs the tool with arguments in registry folder dir, input on its standard input.
Outcome runTool(const std::vector<std::string>& arguments, const std::string& input,
                const std::string& dir) {
    Outcome result;
    char outName[] = "/tmp/tessel-regtool-XXXXXX", errName[] = "/tmp/tessel-regtool-XXXXXX";
    const int out = ::mkostemp(outName, O_CLOEXEC), err = ::mkostemp(errName, O_CLOEXEC);
    ::unlink(outName);
    ::unlink(errName);
    int in[2];
    if (out < 0 || err < 0 || input.size() > 4096 || ::pipe2(in, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "no files for the tool: " << std::strerror(errno);
        return result;
    }
    // The input fits into the pipe's buffer, so it is all there before the tool starts.
    EXPECT_EQ(::write(in[1], input.data(), input.size()), static_cast<ssize_t>(input.size()));
    ::close(in[1]);

    std::vector<std::string> strings{TESSEL_REG_TOOL};
    strings.insert(strings.end(), arguments.begin(), arguments.end());
    const std::size_t argc = strings.size();
    for (char** variable = environ; *variable != nullptr; ++variable) {
        if (std::strncmp(*variable, "TESSEL_REGISTRY_DIR=", 20) != 0) {
            strings.emplace_back(*variable);
        }
    }
    strings.push_back("TESSEL_REGISTRY_DIR=" + dir);
    std::vector<char*> pointers;
    for (std::string& text : strings) {
        pointers.push_back(text.data());
    }
    pointers.insert(pointers.begin() + static_cast<std::ptrdiff_t>(argc), nullptr);
    pointers.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err, STDERR_FILENO);
    pid_t pid = -1;
    const int spawned = ::posix_spawn(&pid, TESSEL_REG_TOOL, &actions, nullptr, pointers.data(),
                                      pointers.data() + argc + 1);
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    int status = 0;
    if (spawned == 0 && ::waitpid(pid, &status, 0) == pid) {
        result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    } else {
        ADD_FAILURE() << "posix_spawn: " << std::strerror(spawned);
    }
    result.out = readAll(out);
    result.err = readAll(err);
    ::close(out);
    ::close(err);
    return result;
}

std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::stringstream content;
    content << file.rdbuf();
    return content.str();
}

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

// ASCII text as UTF-16LE bytes.
std::string utf16(const std::string& ascii) {
    std::string out;
    for (char c : ascii) {
        out += c;
        out += '\0';
    }
    return out;
}

using namespace std::string_literals;

const std::string kKey = "SOFTWARE\\Tarvo Works\\GPS Velkor";
const std::string kTool = "HKLM\\" + kKey;
const std::string kFull = "HKEY_LOCAL_MACHINE\\" + kKey;

// text with every "$K" replaced by the full name of the test key.
std::string withKey(std::string text) {
    for (std::size_t at; (at = text.find("$K")) != std::string::npos;) {
        text.replace(at, 2, kFull);
    }
    return text;
}
const std::string kCompleted = "The operation completed successfully.\n";
const std::string kCancelled = "The operation was cancelled by the user.\n";
const std::string kNotFound =
    "ERROR: The system was unable to find the specified registry key or value.\n";

using Stored = std::optional<std::pair<DWORD, std::string>>;
Stored is(DWORD type, const std::string& data) {
    return std::make_pair(type, data);
}

class RegTool : public testing::Test {
  protected:
    void SetUp() override { m_dir = TesselTest::UseScratchRegistry(); }

    void TearDown() override {
        for (const std::string& dir : m_otherDirs) {
            std::filesystem::remove_all(dir);
        }
    }

    Outcome reg(const std::vector<std::string>& arguments, const std::string& input = "") {
        return runTool(arguments, input, m_dir);
    }

    // A registry folder of its own, which this process never opens.
    std::string freshDir() {
        char pattern[] = "/tmp/tessel-regtool-XXXXXX";
        m_otherDirs.emplace_back(::mkdtemp(pattern));
        return m_otherDirs.back();
    }

    // The type and bytes of a value below HKLM, through the library.
    static Stored value(const std::string& key, const char* name) {
        HKEY handle = nullptr;
        if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_READ, &handle) != ERROR_SUCCESS) {
            return std::nullopt;
        }
        Stored found;
        DWORD type = 0, size = 0;
        if (RegQueryValueExA(handle, name, nullptr, &type, nullptr, &size) == ERROR_SUCCESS) {
            std::string data(size, '\0');
            if (RegQueryValueExA(handle, name, nullptr, &type, reinterpret_cast<BYTE*>(data.data()),
                                 &size) == ERROR_SUCCESS) {
                found = std::make_pair(type, data.substr(0, size));
            }
        }
        RegCloseKey(handle);
        return found;
    }

    // Whether key exists. The open alone may be answered from this process's cache of key ids,
    // which knows nothing of a deletion by the tool; a use of the handle does.
    static bool keyExists(const std::string& key) {
        HKEY handle = nullptr;
        DWORD values = 0;
        const bool exists =
            RegOpenKeyExA(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_READ, &handle) == ERROR_SUCCESS &&
            RegQueryInfoKeyA(handle, nullptr, nullptr, &values, nullptr, nullptr) == ERROR_SUCCESS;
        RegCloseKey(handle);
        return exists;
    }

    static void set(const std::string& key, const char* name, DWORD type, const std::string& data) {
        HKEY handle = nullptr;
        ASSERT_EQ(RegCreateKeyExA(HKEY_LOCAL_MACHINE, key.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS,
                                  nullptr, &handle, nullptr),
                  ERROR_SUCCESS);
        EXPECT_EQ(RegSetValueExA(handle, name, 0, type, reinterpret_cast<const BYTE*>(data.data()),
                                 static_cast<DWORD>(data.size())),
                  ERROR_SUCCESS);
        RegCloseKey(handle);
    }

    // The names of the values of key, in their order.
    static std::vector<std::string> valueNames(const std::string& key) {
        std::vector<std::string> names;
        HKEY handle = nullptr;
        RegOpenKeyExA(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_READ, &handle);
        char name[256];
        for (DWORD i = 0, length = sizeof name;
             RegEnumValueA(handle, i, name, &length, nullptr, nullptr, nullptr, nullptr) ==
             ERROR_SUCCESS;
             ++i, length = sizeof name) {
            names.emplace_back(name, length);
        }
        RegCloseKey(handle);
        return names;
    }

    std::string m_dir;
    std::vector<std::string> m_otherDirs;
};

TEST_F(RegTool, HelpExplainsUsageAndTheFolderInUse) {
    for (const char* help : {"--help", "/?", "-h"}) {
        const Outcome run = reg({help});
        EXPECT_EQ(run.status, 0) << help;
        EXPECT_EQ(run.err, "");
        for (const std::string& part :
             {"tessel-reg query  KEY"s, "TESSEL_REGISTRY_DIR"s, "Registry folder: " + m_dir,
              "UTF-8 with LF"s, "Examples:"s}) {
            EXPECT_NE(run.out.find(part), std::string::npos) << part << "\n" << run.out;
        }
    }
    const Outcome add = reg({"ADD", "/?"});
    EXPECT_EQ(add.status, 0);
    EXPECT_EQ(add.out.rfind("tessel-reg add KEY", 0), 0u) << add.out;
}

TEST_F(RegTool, QueryPrintsKeysAndValuesAsRegDoes) {
    set(kKey, "Name", REG_SZ, "Rover \"A\"\0"s);
    set(kKey, "", REG_SZ, "default\0"s);
    set(kKey, "Port", REG_DWORD, "\x48\x26\0\0"s);
    set(kKey, "Blob", REG_BINARY, "\x00\x1f\xff"s);
    set(kKey, "Hosts", REG_MULTI_SZ, "a\0b\0\0"s);
    set(kKey, "Big", REG_QWORD, "\x2a\0\0\0\0\0\0\x01"s);
    set(kKey, "Path", REG_EXPAND_SZ, "%HOME%/x\0"s);
    set(kKey + "\\Sub2", "Deep", REG_SZ, "x\0"s);
    set(kKey + "\\Sub1\\Leaf", "v", REG_DWORD, "\1\0\0\0"s);

    const std::string values = "\n" + kFull + "\n    Name    REG_SZ    Rover \"A\"\n" +
                               "    (Default)    REG_SZ    default\n"
                               "    Port    REG_DWORD    0x2648\n"
                               "    Blob    REG_BINARY    001FFF\n"
                               "    Hosts    REG_MULTI_SZ    a\\0b\n"
                               "    Big    REG_QWORD    0x10000000000002a\n"
                               "    Path    REG_EXPAND_SZ    %HOME%/x\n\n";
    const Outcome all = reg({"query", kTool});
    EXPECT_EQ(all.status, 0);
    EXPECT_EQ(all.err, "");
    EXPECT_EQ(all.out, values + kFull + "\\Sub1\n" + kFull + "\\Sub2\n");
    // A key without values lists only its sub-keys.
    EXPECT_EQ(reg({"query", kTool + "\\Sub1"}).out, "\n" + kFull + "\\Sub1\\Leaf\n");
    // Recursion shows every key below, with or without values.
    const Outcome tree = reg({"query", kTool + "\\", "/S"});
    EXPECT_EQ(tree.status, 0);
    EXPECT_EQ(tree.out, values + kFull + "\\Sub1\n\n" + kFull +
                            "\\Sub1\\Leaf\n    v    REG_DWORD    0x1\n\n" + kFull +
                            "\\Sub2\n    Deep    REG_SZ    x\n\n");
}

TEST_F(RegTool, QueryOfOneValueAndItsSearch) {
    set(kKey, "Port", REG_DWORD, "\x48\x26\0\0"s);
    set(kKey + "\\Sub", "port", REG_SZ, "9800\0"s);
    const std::string port = "\n" + kFull + "\n    Port    REG_DWORD    0x2648\n\n";
    EXPECT_EQ(reg({"query", kTool, "-V", "PORT"}).out, port);
    EXPECT_EQ(reg({"query", kTool, "/ve"}).out,
              "\n" + kFull + "\n    (Default)    REG_SZ    (value not set)\n\n");

    const Outcome search = reg({"query", kTool, "/v", "Port", "/s"});
    EXPECT_EQ(search.status, 0);
    EXPECT_EQ(search.out, port + kFull + "\\Sub\n    port    REG_SZ    9800\n\n" +
                              "End of search: 2 match(es) found.\n");
    const Outcome none = reg({"query", kTool, "/v", "Nothing", "/s"});
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.out, "\nEnd of search: 0 match(es) found.\n");
}

TEST_F(RegTool, MissingKeyOrValueFailsWithRegsMessage) {
    set(kKey, "Port", REG_DWORD, "\1\0\0\0"s);
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"query", kTool + "\\Nothing"},
          {"query", kTool, "/v", "Nothing"},
          {"delete", kTool + "\\Nothing", "/f"},
          {"delete", kTool, "/v", "Nothing", "/f"},
          {"delete", kTool, "/ve", "/f"},
          {"export", kTool + "\\Nothing", m_dir + "/x.reg"}}) {
        const Outcome run = reg(arguments);
        EXPECT_EQ(run.status, 1) << testing::PrintToString(arguments);
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(run.err, kNotFound);
    }
    EXPECT_FALSE(std::filesystem::exists(m_dir + "/x.reg"));
}

TEST_F(RegTool, BadCommandLinesAreRefused) {
    const auto hint = [](const std::string& operation) {
        return "ERROR: Invalid syntax.\nType \"tessel-reg " + operation + "/?\" for usage.\n";
    };
    const std::string badKey = "ERROR: Invalid key name.\n";
    const std::pair<std::vector<std::string>, std::string> cases[] = {
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
    };
    for (const auto& [arguments, err] : cases) {
        const Outcome run = reg(arguments);
        EXPECT_EQ(run.status, 1) << testing::PrintToString(arguments);
        EXPECT_EQ(run.err, err) << testing::PrintToString(arguments);
        EXPECT_EQ(run.out, "");
    }
    EXPECT_FALSE(keyExists("A"));
    // Hive names in any case and form.
    EXPECT_EQ(reg({"add", "hklm\\" + kKey, "/f"}).status, 0);
    EXPECT_EQ(reg({"add", "HKEY_local_MACHINE\\" + kKey, "/f"}).status, 0);
    EXPECT_EQ(reg({"add", "HKCU\\Software\\X", "/v", "a", "/d", "b"}).status, 0);
    EXPECT_EQ(reg({"query", "HKEY_CURRENT_USER\\software\\x", "/v", "A"}).out,
              "\nHKEY_CURRENT_USER\\software\\x\n    a    REG_SZ    b\n\n");
}

TEST_F(RegTool, AddStoresEveryType) {
    const std::tuple<std::vector<std::string>, DWORD, std::string> cases[] = {
        {{"/v", "Text", "/d", "C:\\data \"x\""}, REG_SZ, "C:\\data \"x\"\0"s},
        {{"/v", "Empty"}, REG_SZ, "\0"s},
        {{"/ve", "", "/d", "def"}, REG_SZ, "def\0"s},
        {{"/v", "Exp", "/t", "reg_expand_sz", "/d", "%HOME%"}, REG_EXPAND_SZ, "%HOME%\0"s},
        {{"/v", "Dec", "/t", "REG_DWORD", "/d", "0123"}, REG_DWORD, "\x7b\0\0\0"s},
        {{"/v", "Hex", "/t", "REG_DWORD", "/d", "0xDEADBEEF"}, REG_DWORD, "\xef\xbe\xad\xde"s},
        {{"/v", "Q", "/t", "REG_QWORD", "/d", "18446744073709551615"},
         REG_QWORD,
         "\xff"s + "\xff\xff\xff\xff\xff\xff\xff"},
        {{"/v", "Bin", "/t", "REG_BINARY", "/d", "00ff1A"}, REG_BINARY, "\x00\xff\x1a"s},
        {{"/v", "Odd", "/t", "REG_BINARY", "/d", "abc"}, REG_BINARY, "\x0a\xbc"s},
        {{"/v", "NoBytes", "/t", "REG_BINARY"}, REG_BINARY, ""s},
        {{"/v", "Multi", "/t", "REG_MULTI_SZ", "/d", "one\\0two\\0"},
         REG_MULTI_SZ,
         "one\0two\0\0"s},
        {{"/v", "Sep", "/t", "REG_MULTI_SZ", "/s", "#", "/d", "a#b"}, REG_MULTI_SZ, "a\0b\0\0"s},
        {{"/v", "NoList", "/t", "REG_MULTI_SZ", "/d", "\\0"}, REG_MULTI_SZ, "\0\0"s},
        {{"/v", "None", "/t", "REG_NONE", "/d", "x"}, REG_NONE, "x\0"s},
    };
    for (auto [options, type, data] : cases) {
        const std::string name = options[1];
        if (options[0] == "/ve") {
            options.erase(options.begin() + 1);
        }
        options.insert(options.begin(), {"add", kTool + "\\Types"});
        const Outcome run = reg(options);
        EXPECT_EQ(run.status, 0) << name << run.err;
        EXPECT_EQ(run.out, kCompleted);
        EXPECT_EQ(value(kKey + "\\Types", name.c_str()), is(type, data)) << name;
    }
    // Without a value option only the key is made.
    EXPECT_EQ(reg({"add", kTool + "\\Only\\Key"}).out, kCompleted);
    EXPECT_TRUE(keyExists(kKey + "\\Only\\Key"));
    EXPECT_TRUE(valueNames(kKey + "\\Only\\Key").empty());
}

TEST_F(RegTool, AddRefusesBadTypesAndData) {
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"/t", "REG_TEXT", "/d", "x"}, "ERROR: Unsupported value type \"REG_TEXT\""},
        {{"/t", "", "/d", "x"}, "ERROR: Unsupported value type \"\""},
        {{"/t", "REG_DWORD", "/d", "12x"}, "ERROR: Invalid REG_DWORD data \"12x\""},
        {{"/t", "REG_DWORD", "/d", "4294967296"}, "ERROR: Invalid REG_DWORD data \"4294967296\""},
        {{"/t", "REG_DWORD", "/d", "-1"}, "ERROR: Invalid REG_DWORD data \"-1\""},
        {{"/t", "REG_QWORD", "/d", "0x1ffffffffffffffff"}, "ERROR: Invalid REG_QWORD data"},
        {{"/t", "REG_BINARY", "/d", "0xff"}, "ERROR: Invalid REG_BINARY data \"0xff\""},
        {{"/t", "REG_MULTI_SZ", "/d", "a\\0\\0b"}, "ERROR: Invalid REG_MULTI_SZ data"},
        {{"/t", "REG_MULTI_SZ", "/s", "##", "/d", "a##b"}, "ERROR: The separator of /s"},
    };
    for (auto [options, err] : cases) {
        options.insert(options.begin(), {"add", kTool, "/v", "Bad"});
        const Outcome run = reg(options);
        EXPECT_EQ(run.status, 1) << err;
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(run.err.rfind(err, 0), 0u) << run.err;
        EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
    }
    EXPECT_FALSE(keyExists(kKey));  // nothing was created
}

TEST_F(RegTool, OverwriteAsksUnlessForced) {
    set(kKey, "Port", REG_DWORD, "\1\0\0\0"s);
    std::vector<std::string> add{"add", kTool, "/v", "port", "/t", "REG_DWORD", "/d", "2"};
    const std::string question = "Value Port exists, overwrite(Yes/No)? \n";
    for (const char* answer : {"n\n", "No\n", ""}) {  // the end of the input is a no
        const Outcome run = reg(add, answer);
        EXPECT_EQ(run.status, 0);
        EXPECT_EQ(run.out, question + kCancelled) << answer;
        EXPECT_EQ(value(kKey, "Port"), is(REG_DWORD, "\1\0\0\0"s));
    }
    EXPECT_EQ(reg(add, "maybe\nYES\n").out, question + question + kCompleted);  // asked again
    EXPECT_EQ(value(kKey, "Port"), is(REG_DWORD, "\2\0\0\0"s));
    add.back() = "3";
    add.push_back("/f");
    EXPECT_EQ(reg(add, "n\n").out, kCompleted);
    EXPECT_EQ(value(kKey, "Port"), is(REG_DWORD, "\3\0\0\0"s));

    set(kKey, "", REG_SZ, "d\0"s);
    EXPECT_EQ(reg({"add", kTool, "/ve", "/d", "e"}, "y\n").out,
              "Value (Default) exists, overwrite(Yes/No)? \n" + kCompleted);
    EXPECT_EQ(value(kKey, ""), is(REG_SZ, "e\0"s));
    EXPECT_EQ(valueNames(kKey), (std::vector<std::string>{"Port", ""}));  // replaced in place
}

TEST_F(RegTool, DeleteValuesAfterAsking) {
    for (const char* name : {"A", "", "B"}) {
        set(kKey, name, REG_SZ, "x\0"s);
    }
    set(kKey + "\\Sub", "C", REG_SZ, "c\0"s);
    const std::string question = "Delete the registry value A (Yes/No)? \n";
    EXPECT_EQ(reg({"delete", kTool, "/v", "a"}, "n\n").out, question + kCancelled);
    EXPECT_TRUE(value(kKey, "A"));
    EXPECT_EQ(reg({"delete", kTool, "/v", "a"}, "y\n").out, question + kCompleted);
    EXPECT_FALSE(value(kKey, "A"));
    EXPECT_EQ(reg({"delete", kTool, "/ve", "/f"}).out, kCompleted);
    EXPECT_EQ(valueNames(kKey), std::vector<std::string>{"B"});

    set(kKey, "A", REG_SZ, "a\0"s);
    EXPECT_EQ(reg({"delete", kTool, "/va"}, "yes\n").out,
              "Delete all values under the registry key " + kTool + " (Yes/No)? \n" + kCompleted);
    EXPECT_TRUE(valueNames(kKey).empty());
    EXPECT_TRUE(value(kKey + "\\Sub", "C"));  // sub-keys keep theirs
}

TEST_F(RegTool, DeleteKeyRemovesTheWholeTree) {
    set(kKey, "A", REG_SZ, "a\0"s);
    set(kKey + "\\One\\Two\\Three", "B", REG_SZ, "b\0"s);
    set("SOFTWARE\\Tarvo Works\\Neighbour", "C", REG_SZ, "c\0"s);
    const std::string question = "Permanently delete the registry key " + kTool + " (Yes/No)? \n";
    EXPECT_EQ(reg({"delete", kTool}, "n\n").out, question + kCancelled);
    EXPECT_TRUE(keyExists(kKey + "\\One\\Two\\Three"));

    const Outcome run = reg({"delete", kTool}, "y\n");
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, question + kCompleted);
    EXPECT_FALSE(keyExists(kKey));
    EXPECT_FALSE(keyExists(kKey + "\\One\\Two\\Three"));
    EXPECT_TRUE(value("SOFTWARE\\Tarvo Works\\Neighbour", "C"));
    EXPECT_EQ(reg({"delete", kTool, "/f"}).err, kNotFound);

    const Outcome hive = reg({"delete", "HKLM", "/f"});  // a hive stays
    EXPECT_EQ(hive.status, 1);
    EXPECT_EQ(hive.err, "ERROR: Access is denied.\n");
    EXPECT_TRUE(keyExists("SOFTWARE\\Tarvo Works\\Neighbour"));
}

TEST_F(RegTool, ExportAndImportKeepEveryValue) {
    // The source registry lives in a folder of its own; the import goes into ours.
    const std::string source = freshDir();
    const std::string file = source + "/station.reg";
    const std::string umlaut =
        "Gr\xc3\xbc\xc3\x9f"
        "e";
    const std::vector<std::vector<std::string>> adds = {
        {"/v", "Name", "/d", "Rover \"A\" at C:\\data"},
        {"/v", "Port", "/t", "REG_DWORD", "/d", "9800"},
        {"/ve", "/d", "default comes third"},
        {"/v", "Path", "/t", "REG_EXPAND_SZ", "/d", "%HOME%/gnss"},
        {"/v", "Hosts", "/t", "REG_MULTI_SZ", "/d", "alpha\\0b\xc3\xa9ta\\0\xe2\x82\xac"},
        {"/v", "Big", "/t", "REG_QWORD", "/d", "0x123456789abcdef0"},
        {"/v", "Blob", "/t", "REG_BINARY", "/d", std::string(100, 'a') + "0f"},
        {"/v", "Empty", "/t", "REG_BINARY"},
        {"/v", umlaut, "/d",
         "\xc3\xbc"
         "ber"},
    };
    for (auto options : adds) {
        options.insert(options.begin(), {"add", kTool});
        ASSERT_EQ(runTool(options, "", source).status, 0) << options[3];
    }
    ASSERT_EQ(runTool({"add", kTool + "\\Sub\\Deeper", "/v", "x", "/d", "1"}, "", source).status,
              0);
    ASSERT_EQ(runTool({"add", kTool + "\\Sub\\Empty"}, "", source).status, 0);

    Outcome run = runTool({"export", kTool, file}, "", source);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, kCompleted);
    const std::string text = readFile(file);
    EXPECT_EQ(text.rfind("Windows Registry Editor Version 5.00\n\n[" + kFull + "]\n", 0), 0u);
    EXPECT_EQ(text.find('\r'), std::string::npos);
    for (const char* line :
         {"\"Name\"=\"Rover \\\"A\\\" at C:\\\\data\"\n", "\"Port\"=dword:00002648\n",
          "@=\"default comes third\"\n", "\"Big\"=hex(b):f0,de,bc,9a,78,56,34,12\n",
          "\"Path\"=hex(2):25,00,48,00,4f,00,4d,00,45,00,25,00,2f,00,67,00,6e,"
          "00,73,00,73,\\\n  00,00,00\n"}) {
        EXPECT_NE(text.find(std::string("\n") + line), std::string::npos) << line << text;
    }
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_LE(line.size(), 80u) << line;
    }

    // Exporting onto an existing file asks first.
    run = runTool({"export", kTool, file}, "n\n", source);
    EXPECT_EQ(run.out, "File " + file + " already exists. Overwrite (Yes/No)? \n" + kCancelled);
    writeFile(file, "old");
    EXPECT_EQ(runTool({"export", kTool, file, "/y"}, "", source).out, kCompleted);
    EXPECT_EQ(readFile(file), text);

    run = reg({"import", file});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, kCompleted);
    EXPECT_EQ(valueNames(kKey), (std::vector<std::string>{"Name", "Port", "", "Path", "Hosts",
                                                          "Big", "Blob", "Empty", umlaut}));
    EXPECT_EQ(value(kKey, "Name"), is(REG_SZ, "Rover \"A\" at C:\\data\0"s));
    EXPECT_EQ(value(kKey, "Port"), is(REG_DWORD, "\x48\x26\0\0"s));
    EXPECT_EQ(value(kKey, ""), is(REG_SZ, "default comes third\0"s));
    EXPECT_EQ(value(kKey, "Path"), is(REG_EXPAND_SZ, "%HOME%/gnss\0"s));
    EXPECT_EQ(value(kKey, "Hosts"), is(REG_MULTI_SZ, "alpha\0b\xc3\xa9ta\0\xe2\x82\xac\0\0"s));
    EXPECT_EQ(value(kKey, "Big"), is(REG_QWORD, "\xf0\xde\xbc\x9a\x78\x56\x34\x12"s));
    EXPECT_EQ(value(kKey, "Blob"), is(REG_BINARY, std::string(50, '\xaa') + "\x0f"));
    EXPECT_EQ(value(kKey, "Empty"), is(REG_BINARY, ""));
    EXPECT_EQ(value(kKey, umlaut.c_str()), is(REG_SZ,
                                              "\xc3\xbc"
                                              "ber\0"s));
    EXPECT_EQ(value(kKey + "\\Sub\\Deeper", "x"), is(REG_SZ, "1\0"s));
    EXPECT_TRUE(keyExists(kKey + "\\Sub\\Empty"));

    // And our copy exports to the very same text.
    EXPECT_EQ(reg({"export", kTool, m_dir + "/copy.reg"}).status, 0);
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
    ASSERT_EQ(reg({"export", kTool, file}).status, 0);
    const std::string text = readFile(file);
    for (const char* line : {"\"Unterminated\"=hex(1):61,00,62,00,63,00\n", "\"NoBytes\"=hex(1):\n",
                             "\"NotUtf8\"=hex(2):ff,dc,fe,dc,00,00\n", "\"Short\"=hex(4):01,02\n",
                             "\"Odd\"=hex(100):72,61,77\n"}) {
        EXPECT_NE(text.find(line), std::string::npos) << line << text;
    }
    ASSERT_EQ(reg({"delete", kTool, "/f"}).status, 0);
    ASSERT_EQ(reg({"import", file}).status, 0);
    for (const auto& [name, stored] : values) {
        EXPECT_EQ(value(kKey, name), stored) << name;
    }
}

TEST_F(RegTool, ImportsAHandWrittenFile) {
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
    const Outcome run = reg({"import", file});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, kCompleted);
    EXPECT_EQ(run.err, "");
    EXPECT_FALSE(keyExists(kKey + "\\Old"));
    EXPECT_EQ(valueNames(kKey),
              (std::vector<std::string>{"Kept", "Indented", "", "Port", "Blob", "Path", "List"}));
    EXPECT_EQ(value(kKey, "Indented"), is(REG_SZ, "yes\0"s));
    EXPECT_EQ(value(kKey, ""), is(REG_SZ, "the default\0"s));
    EXPECT_EQ(value(kKey, "Port"), is(REG_DWORD, "\x48\x26\0\0"s));
    EXPECT_EQ(value(kKey, "Blob"), is(REG_BINARY, "\x01\x02\x03\x04\x05"));
    EXPECT_EQ(value(kKey, "Path"), is(REG_EXPAND_SZ, "%A%\0"s));
    EXPECT_EQ(value(kKey, "List"), is(REG_MULTI_SZ, "a\0b\0\0"s));
    EXPECT_EQ(reg({"query", "HKCU\\Software\\Second", "/v", "x"}).out,
              "\nHKEY_CURRENT_USER\\Software\\Second\n    x    REG_SZ    1\n\n");
}

TEST_F(RegTool, ImportsUtf16WithByteOrderMark) {
    const std::string file = m_dir + "/unicode.reg";
    writeFile(file, "\xff\xfe" +
                        utf16(withKey("Windows Registry Editor Version 5.00\r\n\r\n[$K]\r\n"
                                      "\"Station\"=\"M")) +
                        "\xfc\0"s + utf16("nchen ") + "\xac\x20" +  // ü, €
                        utf16("\"\r\n\"Port\"=dword:0000000a\r\n"));
    const Outcome run = reg({"import", file});
    EXPECT_EQ(run.status, 0) << run.err;
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
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, "");
    for (const char* line : {"line 3:", "line 6:", "line 7:", "line 8:", "line 9:", "line 11:"}) {
        EXPECT_NE(run.err.find("ERROR: " + file + ", " + line), std::string::npos)
            << line << run.err;
    }
    EXPECT_NE(run.err.find("ERROR: Not all data was successfully written to the registry.\n"),
              std::string::npos);
    EXPECT_EQ(valueNames(kKey), (std::vector<std::string>{"Good", "After"}));

    writeFile(file, "REGEDIT5\n[HKEY_LOCAL_MACHINE\\Other]\n");
    const Outcome header = reg({"import", file});
    EXPECT_EQ(header.status, 1);
    EXPECT_EQ(header.err.rfind("ERROR: " + file + " is not a registry file", 0), 0u) << header.err;
    EXPECT_FALSE(keyExists("Other"));

    const Outcome missing = reg({"import", m_dir + "/missing.reg"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.err, "ERROR: Error opening the file " + m_dir +
                               "/missing.reg: No such file or directory.\n");
}

TEST_F(RegTool, UnusableDatabasePrintsThePlatformText) {
    const std::string broken = freshDir();
    writeFile(broken + "/HKLM.db", std::string(4096, 'x'));  // not a database
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"query", kTool}, {"add", kTool, "/v", "a", "/d", "b"}}) {
        const Outcome run = runTool(arguments, "", broken);
        EXPECT_EQ(run.status, 1) << arguments[0];
        EXPECT_EQ(run.out, "");
        EXPECT_NE(run.err.find("ERROR: The configuration registry database is corrupt.\n"),
                  std::string::npos)
            << run.err;
    }
}

TEST_F(RegTool, ReadOnlyRegistryIsAccessDenied) {
    if (::geteuid() == 0) {
        GTEST_SKIP() << "root may write a read-only registry";
    }
    const std::string readOnly = freshDir();
    ASSERT_EQ(runTool({"add", kTool, "/v", "a", "/d", "b"}, "", readOnly).status, 0);
    ::chmod((readOnly + "/HKLM.db").c_str(), 0444);
    ::chmod(readOnly.c_str(), 0555);
    const Outcome run = runTool({"add", kTool, "/v", "a", "/d", "c", "/f"}, "", readOnly);
    ::chmod(readOnly.c_str(), 0755);
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "ERROR: Access is denied.\n");
}

}  // namespace

#endif  // TESSEL_REG_TOOL
