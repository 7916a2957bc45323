// tessel-reg: the operator's registry tool.
//
// Reads and changes the registry of the Tessel processes of this host (the hive databases in
// the registry folder) with the commands and messages that operators know from the platform's
// reg tool: query, add, delete, export and import. Results and questions go to standard
// output, errors to standard error; the exit status is 0 on success (and when the operator
// answers a question with no), 1 on failure.
//
// Where reg's behaviour does not carry over to Linux, or where we chose otherwise:
// - KEY (and FILE of export) always directly follows the operation, so that a path such as
//   /tmp/x.reg is never taken for an option. Options start with '/' or '-', in any case.
// - A question is repeated until the answer is y, yes, n or no (any case); the end of the
//   input counts as no. When standard input is not a terminal, a line end follows the answer
//   so that the next message starts on a line of its own.
// - "add KEY" without /v, /ve, /t and /d only creates the key; reg would also set the default
//   value to an empty string.
// - "query /v NAME /s" that finds nothing exits with 1, as a missing value does.
// - Export writes UTF-16LE with a byte order mark and CRLF line ends, as reg does; /utf8
//   writes UTF-8 with LF line ends instead. A REG_SZ that the quoted form cannot
//   hold exactly (no terminating NUL, an inner NUL, a line break, bytes that are not UTF-8)
//   is written as hex(1) instead of being cut at its first NUL, so that nothing is lost.
// - Import reports each line that it cannot read, with its number, and then fails with
//   reg's "Not all data was successfully written" (exit 1) where reg skips such lines
//   silently; an error of the store ends the import.
// - The hive roots cannot be deleted; "/reg:32" and "/reg:64" are accepted and change nothing.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "RegFile.h"
#include "Store.h"
#include "tessel/platform/Diagnostics.h"

namespace {

using namespace TesselReg;
using namespace Tessel::Platform;

constexpr int kSuccess = 0;
constexpr int kFailure = 1;

const char* const kCompleted = "The operation completed successfully.";
const char* const kCancelled = "The operation was cancelled by the user.";
const char* const kDefaultName = "(Default)";

// --- Messages ---

int fail(const std::string& message) {
    std::cerr << "ERROR: " << message << '\n';
    return kFailure;
}

int notFound() {
    return fail("The system was unable to find the specified registry key or value.");
}

int invalidKeyName() {
    return fail("Invalid key name.");
}

int storeFailure(DWORD error) {
    return error == ERROR_FILE_NOT_FOUND ? notFound() : fail(ErrorText(error));
}

int invalidSyntax(const std::string& operation) {
    std::cerr << "ERROR: Invalid syntax.\n"
              << "Type \"tessel-reg " << (operation.empty() ? "" : operation + " ")
              << "/?\" for usage.\n";
    return kFailure;
}

int completed() {
    std::cout << kCompleted << '\n';
    return kSuccess;
}

int cancelled() {
    std::cout << kCancelled << '\n';
    return kSuccess;
}

std::string lowered(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return text;
}

// Asks question until the answer is yes or no; the end of the input is no.
bool confirm(const std::string& question) {
    const bool terminal = ::isatty(STDIN_FILENO) != 0;
    while (true) {
        std::cout << question << std::flush;
        std::string answer;
        if (!std::getline(std::cin, answer)) {
            std::cout << '\n';
            return false;
        }
        if (!terminal) {
            std::cout << '\n';
        }
        const std::size_t first = answer.find_first_not_of(" \t\r");
        const std::size_t last = answer.find_last_not_of(" \t\r");
        answer = first == std::string::npos ? "" : lowered(answer.substr(first, last - first + 1));
        if (answer == "y" || answer == "yes") {
            return true;
        }
        if (answer == "n" || answer == "no") {
            return false;
        }
    }
}

// --- Usage ---

bool isHelp(const std::string& argument) {
    const std::string option = lowered(argument);
    return option == "/?" || option == "-?" || option == "/h" || option == "-h" ||
           option == "--help";
}

void printRegistryFolder() {
    const char* configured = std::getenv("TESSEL_REGISTRY_DIR");
    std::cout << "Registry folder: " << RegistryDirectory()
              << (configured != nullptr && *configured != '\0' ? "  (from TESSEL_REGISTRY_DIR)"
                                                               : "  (default)")
              << "\n"
                 "  One database per hive (HKLM.db, HKCU.db, ...). The folder is the one named by\n"
                 "  the environment variable TESSEL_REGISTRY_DIR; without it\n"
                 "  /var/lib/tessel/registry where that can be written, else\n"
                 "  $XDG_STATE_HOME/tessel/registry (~/.local/state/tessel/registry).\n";
}

const char* const kKeyHelp =
    "KEY is HIVE\\path\\to\\key, with HIVE one of HKLM, HKCU, HKCR, HKU, HKCC or their long\n"
    "forms HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER, HKEY_CLASSES_ROOT, HKEY_USERS,\n"
    "HKEY_CURRENT_CONFIG (any case). Quote it for the shell: 'HKLM\\SOFTWARE\\Tarvo Works'.\n"
    "KEY always comes first after the operation; the options follow it, each starting with\n"
    "'/' or '-', in any case.\n";

void printQueryHelp() {
    std::cout
        << "tessel-reg query KEY [/v NAME | /ve] [/s]\n"
           "\n"
           "  Lists the values and sub-keys of KEY.\n"
           "  /v NAME   only the value NAME\n"
           "  /ve       only the default value, \"(Default)\"\n"
           "  /s        all keys below KEY as well; with /v or /ve, counts the matches\n"
           "\n"
           "  Values print as \"    NAME    TYPE    DATA\": REG_DWORD and REG_QWORD as 0x hex,\n"
           "  REG_BINARY as hex digits, REG_MULTI_SZ as the strings joined by \\0.\n"
           "\n"
        << kKeyHelp
        << "\n"
           "Examples:\n"
           "  tessel-reg query 'HKLM\\SOFTWARE\\Tarvo Works\\GPS Velkor'\n"
           "  tessel-reg query 'HKLM\\SOFTWARE\\Tarvo Works' /v Port /s\n";
}

void printAddHelp() {
    std::cout
        << "tessel-reg add KEY [/v NAME | /ve] [/t TYPE] [/s SEPARATOR] [/d DATA] [/f]\n"
           "\n"
           "  Creates KEY (and the keys on its path) and sets a value.\n"
           "  /v NAME   the value to set\n"
           "  /ve       the default value\n"
           "  /t TYPE   REG_SZ (the default), REG_EXPAND_SZ, REG_MULTI_SZ, REG_DWORD, REG_QWORD,\n"
           "            REG_BINARY or REG_NONE\n"
           "  /s SEP    the one character that separates the strings of REG_MULTI_SZ data\n"
           "            instead of \\0\n"
           "  /d DATA   the data: text (REG_SZ, REG_EXPAND_SZ, and REG_NONE, which stores it\n"
           "            as UTF-16LE as reg does); REG_DWORD and REG_QWORD in decimal or 0x hex;\n"
           "            REG_BINARY as hex digits (\"0aff\");\n"
           "            REG_MULTI_SZ as \"one\\0two\"\n"
           "  /f        overwrite an existing value without asking\n"
           "\n"
           "  Without /v, /ve, /t and /d only the key is created. An existing value is\n"
           "  replaced only after a yes to \"Value NAME exists, overwrite(Yes/No)?\".\n"
           "\n"
        << kKeyHelp
        << "\n"
           "Examples:\n"
           "  tessel-reg add 'HKLM\\SOFTWARE\\Tarvo Works\\GPS Velkor' /v Port /t REG_DWORD "
           "/d 9800 /f\n"
           "  tessel-reg add 'HKLM\\SOFTWARE\\Tarvo Works\\GPS Velkor' /v Hosts /t REG_MULTI_SZ "
           "/d 'a\\0b'\n";
}

void printDeleteHelp() {
    std::cout << "tessel-reg delete KEY [/v NAME | /ve | /va] [/f]\n"
                 "\n"
                 "  Deletes KEY with everything below it, or values of KEY.\n"
                 "  /v NAME   only the value NAME\n"
                 "  /ve       only the default value\n"
                 "  /va       all values of KEY (its sub-keys stay)\n"
                 "  /f        delete without asking\n"
                 "\n"
              << kKeyHelp
              << "\n"
                 "Examples:\n"
                 "  tessel-reg delete 'HKLM\\SOFTWARE\\Tarvo Works\\GPS Velkor' /v Port /f\n"
                 "  tessel-reg delete 'HKLM\\SOFTWARE\\Tarvo Works\\Old Station'\n";
}

void printExportHelp() {
    std::cout << "tessel-reg export KEY FILE [/y] [/utf8]\n"
                 "\n"
                 "  Writes KEY and all keys below it to FILE in the registry editor's format\n"
                 "  (\"Windows Registry Editor Version 5.00\"), as UTF-16LE with a byte order\n"
                 "  mark and CRLF line ends: the form that the platform's own registry tools\n"
                 "  write and read without loss.\n"
                 "  /y        overwrite an existing FILE without asking\n"
                 "  /utf8     write UTF-8 with LF line ends instead, for grep, diff and editors;\n"
                 "            tessel-reg imports both forms\n"
                 "\n"
              << kKeyHelp
              << "\n"
                 "Example:\n"
                 "  tessel-reg export 'HKLM\\SOFTWARE\\Tarvo Works' /tmp/tarvo.reg /y\n";
}

void printImportHelp() {
    std::cout
        << "tessel-reg import FILE\n"
           "\n"
           "  Applies a registry file: \"[KEY]\" sections create keys, \"[-KEY]\" deletes a key\n"
           "  with everything below it, '\"Name\"=-' deletes a value. Reads UTF-8 (with or\n"
           "  without a byte order mark) and UTF-16 files with a byte order mark, CRLF or LF\n"
           "  line ends, and also REGEDIT4 files (8-bit text in Windows-1252, or UTF-8).\n"
           "  Lines that cannot be read are reported and skipped; an error of the registry\n"
           "  ends the import.\n"
           "\n"
           "Example:\n"
           "  tessel-reg import /tmp/tarvo.reg\n";
}

void printUsage() {
    std::cout
        << "tessel-reg: reads and changes the registry of the Tessel processes on this host.\n"
           "\n"
           "  tessel-reg query  KEY [/v NAME | /ve] [/s]\n"
           "  tessel-reg add    KEY [/v NAME | /ve] [/t TYPE] [/s SEP] [/d DATA] [/f]\n"
           "  tessel-reg delete KEY [/v NAME | /ve | /va] [/f]\n"
           "  tessel-reg export KEY FILE [/y] [/utf8]\n"
           "  tessel-reg import FILE\n"
           "  tessel-reg OPERATION /?      help on one operation\n"
           "  tessel-reg --help | -h | /?  this text\n"
           "\n"
        << kKeyHelp
        << "\n"
           "Export writes UTF-16LE with CRLF line ends (/utf8: UTF-8 with LF); import reads\n"
           "both, and REGEDIT4 files in Windows-1252.\n"
           "Exit status: 0 on success or when a question was answered with no, 1 on errors.\n"
           "\n";
    printRegistryFolder();
    std::cout << "\n"
                 "Examples:\n"
                 "  tessel-reg query 'HKLM\\SOFTWARE\\Tarvo Works\\GPS Velkor' /s\n"
                 "  tessel-reg add 'HKLM\\SOFTWARE\\Tarvo Works\\GPS Velkor' /v Port /t REG_DWORD "
                 "/d 9800\n"
                 "  tessel-reg delete 'HKLM\\SOFTWARE\\Tarvo Works\\GPS Velkor' /v Port /f\n"
                 "  tessel-reg export 'HKLM\\SOFTWARE\\Tarvo Works' tarvo.reg\n"
                 "  TESSEL_REGISTRY_DIR=/srv/station/registry tessel-reg import tarvo.reg\n";
}

// --- Command line ---

struct Command {
    std::string operation;
    std::vector<std::string> operands;  // KEY, FILE
    std::optional<std::string> valueName;
    bool defaultValue = false;  // /ve
    bool allValues = false;     // /va
    bool recurse = false;       // /s of query
    bool force = false;         // /f, /y
    bool utf8 = false;          // /utf8 of export
    std::optional<std::string> type;
    std::optional<std::string> data;
    std::optional<std::string> separator;  // /s of add
    bool view32 = false;
    bool view64 = false;
    bool help = false;
};

struct Operation {
    const char* name;
    std::size_t operands;
    std::vector<std::string> options;  // an option taking an argument ends in '='
    int (*run)(const Command&);
    void (*help)();
};

// Reads the options in arguments; false for a syntax error.
bool parseOptions(const Operation& operation, const std::vector<std::string>& arguments,
                  Command& command) {
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (isHelp(argument)) {
            command.help = true;
            continue;
        }
        if (argument.size() < 2 || (argument[0] != '/' && argument[0] != '-')) {
            return false;
        }
        const std::string name = lowered(argument.substr(1));
        bool known = false, takesArgument = false;
        for (const std::string& option : operation.options) {
            if (option == name || option == name + "=") {
                known = true;
                takesArgument = option.back() == '=';
            }
        }
        if (!known) {
            return false;
        }
        std::optional<std::string> value;
        if (takesArgument) {
            if (i + 1 >= arguments.size()) {
                return false;
            }
            value = arguments[++i];
        }
        const auto set = [](bool& flag) {
            const bool was = flag;
            flag = true;
            return !was;
        };
        const auto setText = [&](std::optional<std::string>& slot) {
            const bool was = slot.has_value();
            slot = value;
            return !was;
        };
        bool first;
        if (name == "v") {
            first = setText(command.valueName);
        } else if (name == "ve") {
            first = set(command.defaultValue);
        } else if (name == "va") {
            first = set(command.allValues);
        } else if (name == "s") {
            first = takesArgument ? setText(command.separator) : set(command.recurse);
        } else if (name == "utf8") {
            first = set(command.utf8);
        } else if (name == "f" || name == "y") {
            first = set(command.force);
        } else if (name == "t") {
            first = setText(command.type);
        } else if (name == "d") {
            first = setText(command.data);
        } else if (name == "reg:32") {
            first = set(command.view32);
        } else {
            first = set(command.view64);
        }
        if (!first) {
            return false;  // an option given twice
        }
    }
    const int valueOptions =
        (command.valueName ? 1 : 0) + (command.defaultValue ? 1 : 0) + (command.allValues ? 1 : 0);
    return valueOptions <= 1 && !(command.view32 && command.view64);
}

// --- Values as query prints them ---

const char* typeName(DWORD type) {
    static const char* const names[] = {"REG_NONE",
                                        "REG_SZ",
                                        "REG_EXPAND_SZ",
                                        "REG_BINARY",
                                        "REG_DWORD",
                                        "REG_DWORD_BIG_ENDIAN",
                                        "REG_LINK",
                                        "REG_MULTI_SZ",
                                        "REG_RESOURCE_LIST",
                                        "REG_FULL_RESOURCE_DESCRIPTOR",
                                        "REG_RESOURCE_REQUIREMENTS_LIST",
                                        "REG_QWORD"};
    return type < sizeof names / sizeof names[0] ? names[type] : nullptr;
}

std::string hexDigits(const std::string& bytes) {
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    for (char c : bytes) {
        const auto b = static_cast<unsigned char>(c);
        out += digits[b >> 4];
        out += digits[b & 0xF];
    }
    return out;
}

std::uint64_t littleEndian(const std::string& bytes) {
    std::uint64_t number = 0;
    for (std::size_t i = bytes.size(); i-- > 0;) {
        number = number << 8 | static_cast<unsigned char>(bytes[i]);
    }
    return number;
}

std::string displayData(const Value& value) {
    switch (value.type) {
        case REG_SZ:
        case REG_EXPAND_SZ:
            return value.data.substr(0, value.data.find('\0'));
        case REG_MULTI_SZ: {
            std::string strings = value.data;
            if (strings.size() >= 2 && strings.compare(strings.size() - 2, 2, "\0\0", 2) == 0) {
                strings.resize(strings.size() - 2);
            } else if (!strings.empty() && strings.back() == '\0') {
                strings.pop_back();
            }
            std::string out;
            for (char c : strings) {
                out += c == '\0' ? std::string("\\0") : std::string(1, c);
            }
            return out;
        }
        case REG_DWORD:
        case REG_QWORD:
            if (value.data.size() == (value.type == REG_DWORD ? 4u : 8u)) {
                char number[24];
                std::snprintf(number, sizeof number, "0x%llx",
                              static_cast<unsigned long long>(littleEndian(value.data)));
                return number;
            }
            return hexDigits(value.data);
        default:
            return hexDigits(value.data);
    }
}

std::string valueLine(const Value& value) {
    std::string type;
    if (const char* name = typeName(value.type)) {
        type = name;
    } else {
        char number[16];
        std::snprintf(number, sizeof number, "0x%x", static_cast<unsigned>(value.type));
        type = number;
    }
    return "    " + (value.name.empty() ? std::string(kDefaultName) : value.name) + "    " + type +
           "    " + displayData(value) + "\n";
}

// --- query ---

// Lists key (and, with recurse, every key below it) into out as reg does: a key's own line
// and values only where it has values or was reached by the recursion, each such block
// followed by a blank line; without recursion the sub-keys as full paths.
DWORD queryAll(HKEY key, const KeyName& name, bool recurse, bool recursing, std::string& out) {
    std::vector<Value> values;
    std::vector<std::string> subKeys;
    if (const DWORD rc = ReadValues(key, values); rc != ERROR_SUCCESS) {
        return rc;
    }
    if (const DWORD rc = ReadSubKeys(key, subKeys); rc != ERROR_SUCCESS) {
        return rc;
    }
    if (!values.empty() || recursing) {
        out += name.full() + "\n";
        for (const Value& value : values) {
            out += valueLine(value);
        }
        out += "\n";
    }
    for (const std::string& subKey : subKeys) {
        if (!recurse) {
            out += name.full() + "\\" + subKey + "\n";
            continue;
        }
        Key sub;
        DWORD rc = sub.open(name.child(subKey), KEY_READ);
        if (rc == ERROR_SUCCESS) {
            rc = queryAll(sub.get(), name.child(subKey), true, true, out);
        }
        if (rc != ERROR_SUCCESS && rc != ERROR_FILE_NOT_FOUND) {  // deleted meanwhile: skipped
            return rc;
        }
    }
    return ERROR_SUCCESS;
}

// Lists the value wanted of key and of every key below it into out.
DWORD queryValueTree(HKEY key, const KeyName& name, const std::string& wanted, std::string& out,
                     int& matches) {
    Value value;
    DWORD rc = FindValue(key, wanted, value);
    if (rc == ERROR_SUCCESS) {
        out += name.full() + "\n" + valueLine(value) + "\n";
        ++matches;
    } else if (rc != ERROR_FILE_NOT_FOUND) {
        return rc;
    }
    std::vector<std::string> subKeys;
    if ((rc = ReadSubKeys(key, subKeys)) != ERROR_SUCCESS) {
        return rc;
    }
    for (const std::string& subKey : subKeys) {
        Key sub;
        rc = sub.open(name.child(subKey), KEY_READ);
        if (rc == ERROR_SUCCESS) {
            rc = queryValueTree(sub.get(), name.child(subKey), wanted, out, matches);
        }
        if (rc != ERROR_SUCCESS && rc != ERROR_FILE_NOT_FOUND) {
            return rc;
        }
    }
    return ERROR_SUCCESS;
}

int runQuery(const Command& command) {
    KeyName name;
    if (!ParseKeyName(command.operands[0], name)) {
        return invalidKeyName();
    }
    Key key;
    if (const DWORD rc = key.open(name, KEY_READ); rc != ERROR_SUCCESS) {
        return storeFailure(rc);
    }
    std::string out = "\n";
    int result = kSuccess;
    if (command.valueName || command.defaultValue) {
        const std::string wanted = command.valueName.value_or("");
        if (command.recurse) {
            int matches = 0;
            if (const DWORD rc = queryValueTree(key.get(), name, wanted, out, matches);
                rc != ERROR_SUCCESS) {
                return storeFailure(rc);
            }
            out += "End of search: " + std::to_string(matches) + " match(es) found.\n";
            result = matches > 0 ? kSuccess : kFailure;
        } else {
            Value value;
            const DWORD rc = FindValue(key.get(), wanted, value);
            if (rc == ERROR_FILE_NOT_FOUND && wanted.empty()) {
                out += name.full() + "\n    " + kDefaultName + "    REG_SZ    (value not set)\n\n";
            } else if (rc != ERROR_SUCCESS) {
                return storeFailure(rc);
            } else {
                out += name.full() + "\n" + valueLine(value) + "\n";
            }
        }
    } else if (const DWORD rc = queryAll(key.get(), name, command.recurse, false, out);
               rc != ERROR_SUCCESS) {
        return storeFailure(rc);
    }
    std::cout << out;
    return result;
}

// --- add ---

bool parseType(const std::string& text, DWORD& type) {
    static const struct {
        const char* name;
        DWORD type;
    } types[] = {
        {"reg_sz", REG_SZ},       {"reg_expand_sz", REG_EXPAND_SZ}, {"reg_multi_sz", REG_MULTI_SZ},
        {"reg_dword", REG_DWORD}, {"reg_qword", REG_QWORD},         {"reg_binary", REG_BINARY},
        {"reg_none", REG_NONE}};
    for (const auto& entry : types) {
        if (lowered(text) == entry.name) {
            type = entry.type;
            return true;
        }
    }
    return false;
}

// A number from 0 to max, in decimal or with 0x in hex.
bool parseNumber(const std::string& text, std::uint64_t max, std::uint64_t& number) {
    const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const std::string digits = hex ? text.substr(2) : text;
    const unsigned base = hex ? 16 : 10;
    if (digits.empty()) {
        return false;
    }
    number = 0;
    for (char c : digits) {
        unsigned digit;
        if (c >= '0' && c <= '9') {
            digit = static_cast<unsigned>(c - '0');
        } else if (hex && c >= 'a' && c <= 'f') {
            digit = static_cast<unsigned>(c - 'a' + 10);
        } else if (hex && c >= 'A' && c <= 'F') {
            digit = static_cast<unsigned>(c - 'A' + 10);
        } else {
            return false;
        }
        if (number > (max - digit) / base) {
            return false;
        }
        number = number * base + digit;
    }
    return true;
}

// The stored bytes of the /d text for type; error receives the message otherwise.
bool buildData(DWORD type, const std::string& text, const std::string& separator,
               std::string& bytes, std::string& error) {
    bytes.clear();
    switch (type) {
        case REG_SZ:
        case REG_EXPAND_SZ:
            bytes = text + '\0';
            return true;
        case REG_NONE:  // as reg stores it: the text in UTF-16LE with its terminator
            bytes = Utf8ToUtf16Le(text);
            bytes.append(2, '\0');
            return true;
        case REG_DWORD:
        case REG_QWORD: {
            const bool dword = type == REG_DWORD;
            std::uint64_t number;
            if (!parseNumber(text, dword ? 0xFFFFFFFFull : ~0ull, number)) {
                error = std::string("Invalid ") + typeName(type) + " data \"" + text +
                        "\": give a number from 0 to " +
                        (dword ? "4294967295" : "18446744073709551615") +
                        ", in decimal or as 0x hex.";
                return false;
            }
            for (int i = 0; i < (dword ? 4 : 8); ++i) {
                bytes += static_cast<char>((number >> (8 * i)) & 0xFF);
            }
            return true;
        }
        case REG_MULTI_SZ: {
            if (text == separator) {
                bytes.assign(2, '\0');  // an empty list, as reg stores it
                return true;
            }
            std::size_t start = 0;
            while (start < text.size()) {
                std::size_t end = text.find(separator, start);
                if (end == std::string::npos) {
                    end = text.size();
                }
                if (end == start) {
                    error = "Invalid REG_MULTI_SZ data \"" + text +
                            "\": a REG_MULTI_SZ value cannot hold an empty string.";
                    return false;
                }
                bytes.append(text, start, end - start);
                bytes += '\0';
                start = end + separator.size();  // a separator at the very end ends the list
            }
            bytes += '\0';
            return true;
        }
        default: {  // REG_BINARY
            const auto digit = [](char c) {
                return (c >= '0' && c <= '9')   ? c - '0'
                       : (c >= 'a' && c <= 'f') ? c - 'a' + 10
                       : (c >= 'A' && c <= 'F') ? c - 'A' + 10
                                                : -1;
            };
            // An odd count of digits: the first one is a byte of its own, as with reg.
            const std::string digits = text.size() % 2 != 0 ? "0" + text : text;
            bool valid = true;
            for (std::size_t i = 0; valid && i < digits.size(); i += 2) {
                const int high = digit(digits[i]), low = digit(digits[i + 1]);
                valid = high >= 0 && low >= 0;
                bytes += static_cast<char>(high << 4 | low);
            }
            if (!valid) {
                error = std::string("Invalid ") + typeName(type) + " data \"" + text +
                        "\": give the bytes as hex digits, such as 00ff1a.";
                return false;
            }
            return true;
        }
    }
}

int runAdd(const Command& command) {
    KeyName name;
    if (!ParseKeyName(command.operands[0], name)) {
        return invalidKeyName();
    }
    const bool setValue = command.valueName || command.defaultValue || command.type || command.data;
    DWORD type = REG_SZ;
    if (command.type && !parseType(*command.type, type)) {
        return fail("Unsupported value type \"" + *command.type +
                    "\": use REG_SZ, REG_EXPAND_SZ, REG_MULTI_SZ, REG_DWORD, REG_QWORD, "
                    "REG_BINARY or REG_NONE.");
    }
    if (command.separator && command.separator->size() != 1) {
        return fail("The separator of /s must be one character, not \"" + *command.separator +
                    "\".");
    }
    if ((type == REG_DWORD || type == REG_QWORD) && !command.data) {
        return invalidSyntax(command.operation);  // a number needs its /d
    }
    const std::string valueName = command.valueName.value_or("");
    std::string bytes;
    if (setValue) {
        std::string error;
        if (!buildData(type, command.data.value_or(""), command.separator.value_or("\\0"), bytes,
                       error)) {
            return fail(error);
        }
    }
    if (setValue && !command.force) {
        Key existing;
        DWORD rc = existing.open(name, KEY_READ);
        Value value;
        if (rc == ERROR_SUCCESS) {
            rc = FindValue(existing.get(), valueName, value);
        }
        if (rc == ERROR_SUCCESS) {
            if (!confirm("Value " + (value.name.empty() ? std::string(kDefaultName) : value.name) +
                         " exists, overwrite(Yes/No)? ")) {
                return cancelled();
            }
        } else if (rc != ERROR_FILE_NOT_FOUND) {
            return storeFailure(rc);
        }
    }
    Key key;
    if (const DWORD rc = key.create(name, KEY_ALL_ACCESS); rc != ERROR_SUCCESS) {
        return storeFailure(rc);
    }
    if (setValue) {
        const DWORD rc = static_cast<DWORD>(RegSetValueExA(
            key.get(), valueName.c_str(), 0, type, reinterpret_cast<const BYTE*>(bytes.data()),
            static_cast<DWORD>(bytes.size())));
        if (rc != ERROR_SUCCESS) {
            return storeFailure(rc);
        }
    }
    return completed();
}

// --- delete ---

int runDelete(const Command& command) {
    const std::string& typed = command.operands[0];
    KeyName name;
    if (!ParseKeyName(typed, name)) {
        return invalidKeyName();
    }
    const bool oneValue = command.valueName || command.defaultValue;
    if (!oneValue && !command.allValues && name.isRoot()) {
        return fail(ErrorText(ERROR_ACCESS_DENIED));  // a hive cannot be deleted
    }
    Key key;
    if (const DWORD rc = key.open(name, KEY_ALL_ACCESS); rc != ERROR_SUCCESS) {
        return storeFailure(rc);
    }
    Value value;
    if (oneValue) {
        if (const DWORD rc = FindValue(key.get(), command.valueName.value_or(""), value);
            rc != ERROR_SUCCESS) {
            return storeFailure(rc);
        }
    }
    if (!command.force) {
        std::string question;
        if (oneValue) {
            question = "Delete the registry value " +
                       (value.name.empty() ? std::string(kDefaultName) : value.name) +
                       " (Yes/No)? ";
        } else if (command.allValues) {
            question = "Delete all values under the registry key " + typed + " (Yes/No)? ";
        } else {
            question = "Permanently delete the registry key " + typed + " (Yes/No)? ";
        }
        if (!confirm(question)) {
            return cancelled();
        }
    }
    DWORD rc = ERROR_SUCCESS;
    if (oneValue) {
        rc = static_cast<DWORD>(RegDeleteValueA(key.get(), value.name.c_str()));
    } else if (command.allValues) {
        std::vector<Value> values;
        rc = ReadValues(key.get(), values);
        for (std::size_t i = 0; rc == ERROR_SUCCESS && i < values.size(); ++i) {
            rc = static_cast<DWORD>(RegDeleteValueA(key.get(), values[i].name.c_str()));
            if (rc == ERROR_FILE_NOT_FOUND) {
                rc = ERROR_SUCCESS;  // deleted meanwhile
            }
        }
    } else {
        key.close();
        rc = DeleteTree(name);
    }
    return rc == ERROR_SUCCESS ? completed() : storeFailure(rc);
}

// --- export and import ---

// Reads the whole of path; errno is kept on failure.
bool readFile(const std::string& path, std::string& content) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    char buffer[65536];
    ssize_t got;
    while ((got = ::read(fd, buffer, sizeof buffer)) > 0 || (got < 0 && errno == EINTR)) {
        if (got > 0) {
            content.append(buffer, static_cast<std::size_t>(got));
        }
    }
    const int error = errno;
    ::close(fd);
    errno = error;
    return got == 0;
}

bool writeFile(const std::string& path, const std::string& content) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) {
        return false;
    }
    std::size_t done = 0;
    while (done < content.size()) {
        const ssize_t wrote = ::write(fd, content.data() + done, content.size() - done);
        if (wrote < 0 && errno != EINTR) {
            const int error = errno;
            ::close(fd);
            errno = error;
            return false;
        }
        done += wrote > 0 ? static_cast<std::size_t>(wrote) : 0;
    }
    return ::close(fd) == 0;
}

int runExport(const Command& command) {
    KeyName name;
    if (!ParseKeyName(command.operands[0], name)) {
        return invalidKeyName();
    }
    const std::string& file = command.operands[1];
    {
        Key key;
        if (const DWORD rc = key.open(name, KEY_READ); rc != ERROR_SUCCESS) {
            return storeFailure(rc);
        }
    }
    if (!command.force && ::access(file.c_str(), F_OK) == 0 &&
        !confirm("File " + file + " already exists. Overwrite (Yes/No)? ")) {
        return cancelled();
    }
    std::string text;
    if (const DWORD rc = ExportText(name, text); rc != ERROR_SUCCESS) {
        return storeFailure(rc);
    }
    if (!writeFile(file, EncodeRegFile(text, command.utf8 ? RegFileEncoding::Utf8
                                                          : RegFileEncoding::Utf16))) {
        return fail("Cannot write the file " + file + ": " + std::strerror(errno) + ".");
    }
    return completed();
}

int runImport(const Command& command) {
    const std::string& file = command.operands[0];
    std::string content;
    if (!readFile(file, content)) {
        return fail("Error opening the file " + file + ": " + std::strerror(errno) + ".");
    }
    const ImportReport report = Import(content);
    if (report.notRegistryFile) {
        return fail(file + " is not a registry file: its first line must be \"" + kRegFileHeader +
                    "\".");
    }
    for (const std::string& problem : report.problems) {
        std::cerr << "ERROR: " << file << ", " << problem << ".\n";
    }
    if (report.storeError != ERROR_SUCCESS) {
        std::cerr << "ERROR: " << file << ", line " << report.storeErrorLine << ": "
                  << ErrorText(report.storeError) << '\n';
    }
    if (!report.problems.empty() || report.storeError != ERROR_SUCCESS) {
        return fail("Not all data was successfully written to the registry.");
    }
    return completed();
}

const std::vector<Operation>& operations() {
    static const std::vector<Operation> all = {
        {"query", 1, {"v=", "ve", "s", "reg:32", "reg:64"}, &runQuery, &printQueryHelp},
        {"add", 1, {"v=", "ve", "t=", "s=", "d=", "f", "reg:32", "reg:64"}, &runAdd, &printAddHelp},
        {"delete", 1, {"v=", "ve", "va", "f", "reg:32", "reg:64"}, &runDelete, &printDeleteHelp},
        {"export", 2, {"y", "utf8", "reg:32", "reg:64"}, &runExport, &printExportHelp},
        {"import", 1, {"reg:32", "reg:64"}, &runImport, &printImportHelp},
    };
    return all;
}

}  // namespace

int main(int argc, char** argv) {
    // Errors of the platform layer (a database that is not usable) go to standard error,
    // next to our own message.
    SetReportHook(nullptr);
    try {
        if (argc < 2) {
            return invalidSyntax("");
        }
        const std::string operationName = lowered(argv[1]);
        if (isHelp(operationName)) {
            printUsage();
            return kSuccess;
        }
        const Operation* operation = nullptr;
        for (const Operation& candidate : operations()) {
            if (operationName == candidate.name) {
                operation = &candidate;
            }
        }
        if (operation == nullptr) {
            return invalidSyntax("");
        }
        Command command;
        command.operation = operation->name;
        std::vector<std::string> arguments(argv + 2, argv + argc);
        if (!arguments.empty() && isHelp(arguments.front())) {
            command.help = true;
        } else if (arguments.size() < operation->operands) {
            return invalidSyntax(command.operation);
        } else {
            command.operands.assign(arguments.begin(), arguments.begin() + operation->operands);
            arguments.erase(arguments.begin(), arguments.begin() + operation->operands);
            if (!parseOptions(*operation, arguments, command)) {
                return invalidSyntax(command.operation);
            }
        }
        if (command.help) {
            operation->help();
            return kSuccess;
        }
        return operation->run(command);
    } catch (const std::exception& e) {
        return fail(e.what());
    }
}
