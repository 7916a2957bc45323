#include "RegFile.h"

#include <cstdio>

namespace TesselReg {

using namespace Tessel::Platform;

namespace {

// Decodes the UTF-8 sequence at text[i]; false (and i unchanged) where it is not well formed:
// a stray or missing continuation byte, an overlong form, a surrogate or a value beyond
// U+10FFFF.
bool decodeUtf8(std::string_view text, std::size_t& i, char32_t& code) {
    const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
    const unsigned char first = byte(i);
    if (first < 0x80) {
        code = first;
        ++i;
        return true;
    }
    std::size_t length;
    char32_t min;
    if ((first & 0xE0) == 0xC0) {
        length = 2, code = first & 0x1F, min = 0x80;
    } else if ((first & 0xF0) == 0xE0) {
        length = 3, code = first & 0x0F, min = 0x800;
    } else if ((first & 0xF8) == 0xF0) {
        length = 4, code = first & 0x07, min = 0x10000;
    } else {
        return false;
    }
    if (i + length > text.size()) {
        return false;
    }
    for (std::size_t k = 1; k < length; ++k) {
        if ((byte(i + k) & 0xC0) != 0x80) {
            return false;
        }
        code = (code << 6) | (byte(i + k) & 0x3F);
    }
    if (code < min || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) {
        return false;
    }
    i += length;
    return true;
}

void appendUtf8(std::string& out, char32_t code) {
    if (code < 0x80) {
        out += static_cast<char>(code);
    } else if (code < 0x800) {
        out += static_cast<char>(0xC0 | (code >> 6));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
        out += static_cast<char>(0xE0 | (code >> 12));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (code >> 18));
        out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    }
}

bool isUtf8(std::string_view text) {
    char32_t code;
    for (std::size_t i = 0; i < text.size();) {
        if (!decodeUtf8(text, i, code)) {
            return false;
        }
    }
    return true;
}

// The number of UTF-16 code units of UTF-8 text, the unit in which the registry editor
// measures the width of a line: a character beyond U+FFFF counts twice.
std::size_t characters(std::string_view text) {
    std::size_t count = 0;
    for (char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        count += (byte & 0xC0) != 0x80 ? (byte >= 0xF0 ? 2 : 1) : 0;
    }
    return count;
}

// The characters of Windows-1252 from 0x80 to 0x9F; the five bytes that it leaves undefined
// become the C1 controls of the same value, as the platform's conversion does.
constexpr char16_t kWindows1252High[32] = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0x008D, 0x017D, 0x008F, 0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};

// --- Export ---

std::string escape(std::string_view text) {
    std::string out;
    for (char c : text) {
        if (c == '\\' || c == '"') {
            out += '\\';
        }
        out += c;
    }
    return out;
}

// A REG_SZ that the quoted form holds exactly: UTF-8 text on one line with one terminating
// NUL. Anything else is written as hex(1).
bool isPlainString(std::string_view data) {
    if (data.empty() || data.back() != '\0') {
        return false;
    }
    data.remove_suffix(1);
    return data.find_first_of(std::string_view("\0\r\n", 3)) == std::string_view::npos &&
           isUtf8(data);
}

// Appends head (the name and '=') followed by the bytes in hex, wrapped as the registry editor
// wraps them: a line is continued with ",\" once it reaches 77 characters, and the next one is
// indented by two blanks.
void appendHex(std::string& out, const std::string& head, const std::string& prefix,
               std::string_view bytes) {
    constexpr std::size_t kMaxHexChars = 77;
    out += head;
    out += prefix;
    std::size_t lineLength = characters(head) + prefix.size();
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        char hex[3];
        std::snprintf(hex, sizeof hex, "%02x", static_cast<unsigned char>(bytes[i]));
        out += hex;
        if (i + 1 == bytes.size()) {
            break;
        }
        out += ',';
        lineLength += 3;
        if (lineLength >= kMaxHexChars) {
            out += "\\\n  ";
            lineLength = 2;
        }
    }
    out += '\n';
}

void appendValue(std::string& out, const Value& value) {
    std::string head = "@=";
    if (!value.name.empty()) {
        head = '"';
        head += escape(value.name);
        head += "\"=";
    }
    char prefix[24];
    std::snprintf(prefix, sizeof prefix, "hex(%x):", static_cast<unsigned>(value.type));
    switch (value.type) {
        case REG_SZ:
            if (isPlainString(value.data)) {
                std::string_view text(value.data);
                text.remove_suffix(1);
                out += head + "\"" + escape(text) + "\"\n";
            } else {
                appendHex(out, head, prefix, Utf8ToUtf16Le(value.data));
            }
            return;
        case REG_EXPAND_SZ:
        case REG_MULTI_SZ:
            appendHex(out, head, prefix, Utf8ToUtf16Le(value.data));
            return;
        case REG_DWORD:
            if (value.data.size() == 4) {
                const auto* b = reinterpret_cast<const unsigned char*>(value.data.data());
                char number[16];
                std::snprintf(number, sizeof number, "dword:%08x",
                              static_cast<unsigned>(b[0] | b[1] << 8 | b[2] << 16) |
                                  static_cast<unsigned>(b[3]) << 24);
                out += head + number + "\n";
            } else {
                appendHex(out, head, prefix, value.data);
            }
            return;
        case REG_BINARY:
            appendHex(out, head, "hex:", value.data);
            return;
        default:
            appendHex(out, head, prefix, value.data);
            return;
    }
}

DWORD appendKey(const KeyName& name, std::string& out) {
    Key key;
    if (const DWORD rc = key.open(name, KEY_READ); rc != ERROR_SUCCESS) {
        return rc;
    }
    std::vector<Value> values;
    std::vector<std::string> subKeys;
    if (const DWORD rc = ReadValues(key.get(), values); rc != ERROR_SUCCESS) {
        return rc;
    }
    if (const DWORD rc = ReadSubKeys(key.get(), subKeys); rc != ERROR_SUCCESS) {
        return rc;
    }
    out += "\n[" + name.full() + "]\n";
    for (const Value& value : values) {
        appendValue(out, value);
    }
    for (const std::string& subKey : subKeys) {
        const DWORD rc = appendKey(name.child(subKey), out);
        if (rc != ERROR_SUCCESS && rc != ERROR_FILE_NOT_FOUND) {  // deleted meanwhile: skipped
            return rc;
        }
    }
    return ERROR_SUCCESS;
}

// --- Import ---

bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

std::string_view trimLeft(std::string_view text) {
    while (!text.empty() && isBlank(text.front())) {
        text.remove_prefix(1);
    }
    return text;
}

std::string_view trimRight(std::string_view text) {
    while (!text.empty() && (isBlank(text.back()) || text.back() == '\r')) {
        text.remove_suffix(1);
    }
    return text;
}

// What may follow the data of a value: blanks and a comment.
bool onlyComment(std::string_view rest) {
    rest = trimLeft(rest);
    return rest.empty() || rest.front() == ';';
}

std::string_view withoutComment(std::string_view text) {
    const std::size_t semicolon = text.find(';');
    return trimRight(semicolon == std::string_view::npos ? text : text.substr(0, semicolon));
}

bool startsWithNoCase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() &&
           EqualNoCase(std::string(text.substr(0, prefix.size())), std::string(prefix));
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

// Reads 1 to maxDigits hex digits, the whole of text.
bool parseHexNumber(std::string_view text, std::size_t maxDigits, std::uint32_t& number) {
    if (text.empty() || text.size() > maxDigits) {
        return false;
    }
    number = 0;
    for (char c : text) {
        const int digit = hexDigit(c);
        if (digit < 0) {
            return false;
        }
        number = number << 4 | static_cast<std::uint32_t>(digit);
    }
    return true;
}

// Reads the quoted text that starts at text[pos] ('"'), unescaping \\ and \"; any other
// backslash stays as it is. pos ends behind the closing quote.
bool parseQuoted(std::string_view text, std::size_t& pos, std::string& out) {
    out.clear();
    for (++pos; pos < text.size(); ++pos) {
        const char c = text[pos];
        if (c == '"') {
            ++pos;
            return true;
        }
        if (c == '\\' && pos + 1 < text.size() && (text[pos + 1] == '\\' || text[pos + 1] == '"')) {
            ++pos;
        }
        out += text[pos];
    }
    return false;
}

// The text of the file as UTF-8, from its byte order mark. A REGEDIT4 file is 8-bit text in
// the platform's ANSI code page, Windows-1252 for the western installations, and is converted
// from it (ansi set) unless it is valid UTF-8 as a whole: then a Linux tool wrote it, and a
// text in Windows-1252 with letters beyond ASCII practically never is.
std::string decodeFile(const std::string& content, bool& ansi) {
    ansi = false;
    const auto at = [&](std::size_t i) { return static_cast<unsigned char>(content[i]); };
    if (content.size() >= 2 && at(0) == 0xFF && at(1) == 0xFE) {
        return Utf16LeToUtf8(std::string_view(content).substr(2));
    }
    if (content.size() >= 2 && at(0) == 0xFE && at(1) == 0xFF) {
        std::string swapped = content.substr(2);
        for (std::size_t i = 0; i + 1 < swapped.size(); i += 2) {
            std::swap(swapped[i], swapped[i + 1]);
        }
        return Utf16LeToUtf8(swapped);
    }
    if (content.size() >= 3 && at(0) == 0xEF && at(1) == 0xBB && at(2) == 0xBF) {
        return content.substr(3);
    }
    if (content.size() >= 2 && at(0) != 0 && at(1) == 0) {
        return Utf16LeToUtf8(content);  // UTF-16LE that lost its byte order mark
    }
    if (content.compare(0, 8, "REGEDIT4") == 0 && !isUtf8(content)) {
        ansi = true;
        return Windows1252ToUtf8(content);
    }
    return content;
}

class Importer {
  public:
    ImportReport run(const std::string& content);

  private:
    // One line: its number and its text without the line end.
    struct Line {
        int number;
        std::string_view text;
    };

    void keyLine(const Line& line, std::string_view text);
    // Handles the value line at m_lines[index]; index ends at its last continuation line.
    void valueLine(std::size_t& index, std::string_view text);
    bool parseHex(std::size_t& index, std::string_view data, std::string& bytes);
    void problem(int line, const std::string& what) {
        m_report.problems.push_back("line " + std::to_string(line) + ": " + what);
    }
    void storeError(int line, DWORD error) {
        m_report.storeError = error;
        m_report.storeErrorLine = line;
    }

    ImportReport m_report;
    std::vector<Line> m_lines;
    bool m_unicode = true;     // "Windows Registry Editor Version 5.00" rather than REGEDIT4
    bool m_ansi = false;       // a REGEDIT4 file in Windows-1252
    bool m_inSection = false;  // a section line has been read
    Key m_key;                 // the key of the section; not open after a skipped section
};

ImportReport Importer::run(const std::string& content) {
    const std::string text = decodeFile(content, m_ansi);
    int number = 1;
    for (std::size_t start = 0; start <= text.size(); ++number) {
        std::size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        m_lines.push_back(
            Line{number, trimRight(std::string_view(text).substr(start, end - start))});
        start = end + 1;
    }
    const std::string_view header = trimLeft(m_lines.front().text);
    if (header == kRegFileHeader) {
        m_unicode = true;
    } else if (header == "REGEDIT4") {
        m_unicode = false;
    } else {
        m_report.notRegistryFile = true;
        return m_report;
    }
    for (std::size_t index = 1; index < m_lines.size() && m_report.storeError == 0; ++index) {
        const std::string_view line = trimLeft(m_lines[index].text);
        if (line.empty() || line.front() == ';' || line.front() == '#') {
            continue;
        }
        if (line.front() == '[') {
            keyLine(m_lines[index], line);
        } else if (line.front() == '"' || line.front() == '@') {
            valueLine(index, line);
        } else {
            problem(m_lines[index].number, "neither a key nor a value");
        }
    }
    return m_report;
}

void Importer::keyLine(const Line& line, std::string_view text) {
    m_inSection = true;
    m_key.close();  // the values up to the next section go nowhere unless it opens
    if (text.back() != ']') {
        problem(line.number, "a key name in [] is not closed; section skipped");
        return;
    }
    std::string_view inside = text.substr(1, text.size() - 2);
    const bool remove = !inside.empty() && inside.front() == '-';
    if (remove) {
        inside.remove_prefix(1);
    }
    KeyName name;
    if (!ParseKeyName(std::string(inside), name, true)) {
        problem(line.number, "invalid key name \"" + std::string(inside) + "\"; section skipped");
        return;
    }
    if (remove) {
        if (name.isRoot()) {
            problem(line.number, "a hive cannot be deleted");
            return;
        }
        const DWORD rc = DeleteTree(name);
        if (rc != ERROR_SUCCESS && rc != ERROR_FILE_NOT_FOUND) {
            storeError(line.number, rc);
        }
        return;
    }
    if (const DWORD rc = m_key.create(name, KEY_ALL_ACCESS); rc != ERROR_SUCCESS) {
        storeError(line.number, rc);
    }
}

void Importer::valueLine(std::size_t& index, std::string_view text) {
    const int number = m_lines[index].number;
    std::string name;  // "" for '@', the default value
    std::size_t pos = 1;
    if (text.front() == '"') {
        pos = 0;
        if (!parseQuoted(text, pos, name)) {
            problem(number, "the value name is not closed");
            return;
        }
    }
    const std::string_view afterName = trimLeft(text.substr(pos));
    if (afterName.empty() || afterName.front() != '=') {
        problem(number, "'=' is missing after the value name");
        return;
    }
    const std::string_view data = trimLeft(afterName.substr(1));

    DWORD type = REG_SZ;
    std::string bytes;
    bool remove = false;
    if (!data.empty() && data.front() == '-' && onlyComment(data.substr(1))) {
        remove = true;
    } else if (!data.empty() && data.front() == '"') {
        pos = 0;
        if (!parseQuoted(data, pos, bytes)) {
            problem(number, "the text in quotes is not closed");
            return;
        }
        if (!onlyComment(data.substr(pos))) {
            problem(number, "unexpected characters after the text in quotes");
            return;
        }
        bytes += '\0';
    } else if (startsWithNoCase(data, "dword:")) {
        std::uint32_t number32;
        if (!parseHexNumber(withoutComment(data.substr(6)), 8, number32)) {
            problem(number, "dword: must be followed by 1 to 8 hex digits");
            return;
        }
        type = REG_DWORD;
        for (int shift = 0; shift < 32; shift += 8) {
            bytes += static_cast<char>((number32 >> shift) & 0xFF);
        }
    } else if (startsWithNoCase(data, "hex:") || startsWithNoCase(data, "hex(")) {
        std::size_t colon = data.find(':');
        type = REG_BINARY;
        if (data[3] == '(') {
            const std::size_t close = data.find(')');
            std::uint32_t number32 = 0;
            if (close == std::string_view::npos || close + 1 != colon ||
                !parseHexNumber(data.substr(4, close - 4), 8, number32)) {
                problem(number, "hex( must be followed by a type number in hex and \"):\"");
                return;
            }
            type = number32;
        }
        if (!parseHex(index, data.substr(colon + 1), bytes)) {
            problem(number, "the hex data is not a list of bytes such as 00,1f,ff");
            return;
        }
        const bool isText = type == REG_SZ || type == REG_EXPAND_SZ || type == REG_MULTI_SZ;
        if (isText && m_unicode) {
            if (bytes.size() % 2 != 0) {
                problem(number, "UTF-16 text needs an even number of bytes");
                return;
            }
            bytes = Utf16LeToUtf8(bytes);
        } else if (isText && m_ansi) {
            bytes = Windows1252ToUtf8(bytes);
        }
    } else {
        problem(number, "the data is neither \"text\", dword:, hex: nor -");
        return;
    }

    if (!m_inSection) {
        problem(number, "a value before the first [KEY] line");
        return;
    }
    if (m_key.get() == nullptr) {
        return;  // the section was skipped or deleted
    }
    DWORD rc;
    if (remove) {
        rc = static_cast<DWORD>(RegDeleteValueA(m_key.get(), name.c_str()));
        if (rc == ERROR_FILE_NOT_FOUND) {
            rc = ERROR_SUCCESS;
        }
    } else {
        rc = static_cast<DWORD>(RegSetValueExA(m_key.get(), name.c_str(), 0, type,
                                               reinterpret_cast<const BYTE*>(bytes.data()),
                                               static_cast<DWORD>(bytes.size())));
    }
    if (rc != ERROR_SUCCESS) {
        storeError(number, rc);
    }
}

bool Importer::parseHex(std::size_t& index, std::string_view data, std::string& bytes) {
    // A line ending in ",\" (a comment may follow) goes on in the next line that is neither
    // blank nor a ';' comment.
    std::string joined(withoutComment(data));
    while (!joined.empty() && joined.back() == '\\') {
        joined.pop_back();
        if (trimRight(joined).empty() || trimRight(joined).back() != ',') {
            return false;  // the registry editor continues only behind a comma
        }
        while (++index < m_lines.size()) {
            const std::string_view next = trimLeft(m_lines[index].text);
            if (!next.empty() && next.front() != ';') {
                joined += withoutComment(next);
                break;
            }
        }
    }
    std::string_view rest(joined);
    while (!rest.empty()) {
        const std::size_t comma = rest.find(',');
        const std::string_view item = trimRight(trimLeft(rest.substr(0, comma)));
        std::uint32_t byte;
        if (!parseHexNumber(item, 2, byte)) {
            return false;
        }
        bytes += static_cast<char>(byte);
        if (comma == std::string_view::npos) {
            break;
        }
        rest = trimLeft(rest.substr(comma + 1));  // a trailing comma ends the list
    }
    return true;
}

}  // namespace

std::string Utf8ToUtf16Le(std::string_view utf8) {
    std::string out;
    out.reserve(utf8.size() * 2);
    const auto unit = [&](char32_t u) {
        out += static_cast<char>(u & 0xFF);
        out += static_cast<char>(u >> 8);
    };
    for (std::size_t i = 0; i < utf8.size();) {
        char32_t code;
        if (!decodeUtf8(utf8, i, code)) {
            unit(0xDC00 + static_cast<unsigned char>(utf8[i]));  // an escaped byte
            ++i;
        } else if (code >= 0x10000) {
            unit(0xD800 + ((code - 0x10000) >> 10));
            unit(0xDC00 + ((code - 0x10000) & 0x3FF));
        } else {
            unit(code);
        }
    }
    return out;
}

std::string Utf16LeToUtf8(std::string_view utf16) {
    std::string out;
    out.reserve(utf16.size());
    const auto unitAt = [&](std::size_t i) {
        return static_cast<char32_t>(static_cast<unsigned char>(utf16[i]) |
                                     static_cast<unsigned char>(utf16[i + 1]) << 8);
    };
    for (std::size_t i = 0; i + 1 < utf16.size(); i += 2) {
        const char32_t unit = unitAt(i);
        if (unit >= 0xD800 && unit < 0xDC00 && i + 3 < utf16.size() && unitAt(i + 2) >= 0xDC00 &&
            unitAt(i + 2) < 0xE000) {
            appendUtf8(out, 0x10000 + ((unit - 0xD800) << 10) + (unitAt(i + 2) - 0xDC00));
            i += 2;
        } else if (unit >= 0xDC80 && unit <= 0xDCFF) {
            out += static_cast<char>(unit - 0xDC00);  // an escaped byte
        } else if (unit >= 0xD800 && unit < 0xE000) {
            appendUtf8(out, 0xFFFD);
        } else {
            appendUtf8(out, unit);
        }
    }
    return out;
}

std::string Windows1252ToUtf8(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        appendUtf8(out, byte >= 0x80 && byte < 0xA0 ? kWindows1252High[byte - 0x80] : byte);
    }
    return out;
}

std::string EncodeRegFile(const std::string& text, RegFileEncoding encoding) {
    if (encoding == RegFileEncoding::Utf8) {
        return text;
    }
    std::string crlf;
    crlf.reserve(text.size() + text.size() / 16);
    for (char c : text) {
        if (c == '\n') {
            crlf += '\r';
        }
        crlf += c;
    }
    return "\xFF\xFE" + Utf8ToUtf16Le(crlf);
}

DWORD ExportText(const KeyName& key, std::string& text) {
    text = kRegFileHeader;
    text += '\n';
    if (const DWORD rc = appendKey(key, text); rc != ERROR_SUCCESS) {
        return rc;
    }
    text += '\n';
    return ERROR_SUCCESS;
}

ImportReport Import(const std::string& content) {
    return Importer().run(content);
}

}  // namespace TesselReg
