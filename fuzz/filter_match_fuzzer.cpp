// Fuzz target for CMonitorElement::match, the filter match that runs over every element on
// every monitor request, with a filter that any monitor client may send.
//
// Input: the element's path, a newline, then the filter, which may hold further newlines and
// NULs. Without a newline the whole input is the path and the filter is empty. A path that
// CMonitorElement::IsValidName refuses is not built into an element.
//
// Each run checks what the filter language promises for any path and any filter, and aborts
// with the path and the filter on stderr when a promise is broken:
//  - the result equals the scan re-done here, step by step, on the path elements split out of
//    the path as strings, independent of the parsed identifier;
//  - case does not matter, neither in the filter nor in the path (ASCII);
//  - a filter of 200 or more characters, or one holding a NUL, never matches;
//  - "*" and "**" match every element that has a path; an element without one matches
//    nothing;
//  - a filter without a star matches exactly when it equals the path, case aside, so a path
//    without a star matches itself;
//  - a prefix of a path without a star, followed by a trailing star or double star, matches
//    (within the 200 characters of a filter);
//  - a copy, an assigned element, an element rebuilt from getPath and one whose root name was
//    set to its own root name match as the element does; an element with another root name
//    matches as the re-done scan says for its new path elements.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tessel/monitoring/MonitorElement.h"

namespace {

constexpr std::size_t kMaxFilterLength = CMonitorElement::MAX_NAME_LENGTH;

int upper(char c) {
    return c >= 'a' && c <= 'z' ? c - 'a' + 'A' : static_cast<unsigned char>(c);
}

std::string toUpper(std::string text) {
    for (char& c : text) {
        c = static_cast<char>(upper(c));
    }
    return text;
}

std::string toLower(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return text;
}

// The text with control characters, quotes and bytes above 0x7E escaped, for the report.
std::string printable(const std::string& text) {
    std::string out = "\"";
    for (char ch : text) {
        const unsigned char c = static_cast<unsigned char>(ch);
        if (c < 0x20 || c > 0x7E || c == '"' || c == '\\') {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02X", c);
            out += hex;
        } else {
            out += ch;
        }
    }
    return out + "\"";
}

void require(bool holds, const char* promise, const std::string& path, const std::string& filter) {
    if (holds) {
        return;
    }
    std::fprintf(stderr, "filter match: %s\n  path   %s\n  filter %s\n", promise,
                 printable(path).c_str(), printable(filter).c_str());
    std::abort();
}

// The path elements of a name as the element reads them: split at each delimiter, each cut
// at its first NUL (the parsed identifier keeps every element NUL-terminated in place).
std::vector<std::string> pathElements(const std::string& name) {
    std::vector<std::string> elements(1);
    for (char c : name) {
        if (c == CMonitorElement::DELIMITER) {
            elements.emplace_back();
        } else {
            elements.back() += c;
        }
    }
    for (std::string& element : elements) {
        element = element.c_str();
    }
    return elements;
}

// The filter scan, step by step as the filter language defines it, over path elements held as
// strings: states Literal, one star (skip inside an element up to the stop character), two
// stars (skip across elements up to it) and the run after a double star; a failed run goes
// back to the pattern after the double star but not back in the path.
bool definedScan(const std::vector<std::string>& elements, const std::string& pattern) {
    if (pattern.size() >= kMaxFilterLength || pattern.find('\0') != std::string::npos) {
        return false;
    }
    enum class State { Literal, OneStar, TwoStar, TwoStarRun };
    const auto at = [&](std::size_t k) { return k < pattern.size() ? pattern[k] : '\0'; };
    State state = State::Literal;
    std::size_t e = 0;  // path element
    std::size_t p = 0;  // position in it
    std::size_t i = 0;  // pattern index
    std::size_t r = 0;  // pattern index after the double star
    int s = 0;          // stop character
    while (i < pattern.size() && e < elements.size()) {
        const int c = p < elements[e].size() ? upper(elements[e][p]) : 0;
        switch (state) {
            case State::Literal:
                if (pattern[i] == '*') {
                    if (at(i + 1) == '\0') {
                        return true;
                    }
                    if (at(i + 1) == '*') {
                        if (at(i + 2) == '\0') {
                            return true;
                        }
                        s = upper(at(i + 2));
                        i += 2;
                        state = State::TwoStar;
                    } else if (at(i + 1) == '/') {
                        s = 0;
                        i += 1;
                        state = State::OneStar;
                    } else {
                        s = upper(at(i + 1));
                        i += 1;
                        state = State::OneStar;
                    }
                } else if (pattern[i] == '/') {
                    if (c != 0) {
                        return false;
                    }
                    ++e;
                    p = 0;
                    ++i;
                } else {
                    if (upper(pattern[i]) != c) {
                        return false;
                    }
                    ++i;
                    ++p;
                }
                break;
            case State::OneStar:
                if (c == s) {
                    state = State::Literal;
                } else if (c == 0) {
                    return false;
                } else {
                    ++p;
                }
                break;
            case State::TwoStar:
                if (c == s) {
                    r = i;
                    state = State::TwoStarRun;
                } else if (c == 0) {
                    ++e;
                    p = 0;
                } else {
                    ++p;
                }
                break;
            case State::TwoStarRun:
                if (pattern[i] == '*') {
                    state = State::Literal;
                } else if (upper(pattern[i]) == c) {
                    ++i;
                    ++p;
                } else {
                    i = r;
                    state = State::TwoStar;
                }
                break;
        }
    }
    return e + 1 == elements.size() && p == elements[e].size();
}

void checkElement(const CMonitorElement& element, const std::vector<std::string>& elements,
                  const std::string& path, const std::string& filter) {
    const bool result = element.match(filter);
    require(result == definedScan(elements, filter), "differs from the defined scan", path, filter);

    require(element.match(toUpper(filter)) == result, "upper-case filter differs", path, filter);
    require(element.match(toLower(filter)) == result, "lower-case filter differs", path, filter);

    if (filter.size() < kMaxFilterLength) {
        const std::string longFilter = filter + std::string(kMaxFilterLength - filter.size(), '*');
        require(!element.match(longFilter), "a filter of 200 characters matches", path, filter);
    }
    require(!element.match(filter + '\0'), "a filter with a NUL matches", path, filter);
    require(!element.match(std::string(1, '\0') + filter), "a filter with a NUL matches", path,
            filter);

    require(element.match("*"), "\"*\" does not match", path, filter);
    require(element.match("**"), "\"**\" does not match", path, filter);

    const std::string elementPath = element.getPath();
    if (filter.find(CMonitorElement::WILDCARD) == std::string::npos) {
        require(result == (toUpper(filter) == toUpper(elementPath)),
                "a filter without a star does not match exactly its path", path, filter);
    }
    if (elementPath.find(CMonitorElement::WILDCARD) == std::string::npos) {
        require(element.match(elementPath), "the path does not match itself", path, filter);
        const std::string prefix = elementPath.substr(0, filter.size() % (elementPath.size() + 1));
        // Within the length limit of a filter.
        if (prefix.size() + 1 < kMaxFilterLength) {
            require(element.match(prefix + "*"), "a prefix with a trailing star does not match",
                    path, prefix + "*");
        }
        if (prefix.size() + 2 < kMaxFilterLength) {
            require(element.match(prefix + "**"),
                    "a prefix with a trailing double star does not match", path, prefix + "**");
        }
    }

    const CMonitorElement copy(element);
    require(copy.match(filter) == result, "a copy matches differently", path, filter);
    CMonitorElement assigned("other", "unit");
    assigned = element;
    require(assigned.match(filter) == result, "an assigned element matches differently", path,
            filter);
    const CMonitorElement rebuilt(elementPath, "");
    require(rebuilt == element, "the element rebuilt from its path is not equal", path, filter);
    require(rebuilt.match(filter) == result, "the element rebuilt from its path differs", path,
            filter);
    const CMonitorElement sameRoot(element);
    sameRoot.setRootName(element.getPathElement(0));
    require(sameRoot.match(filter) == result, "setting the same root name changes the match", path,
            filter);
}

// An element whose root name is set to the filter's first path element, so that the new root
// often faces a matching filter.
void checkOtherRoot(const CMonitorElement& element, const std::vector<std::string>& elements,
                    const std::string& path, const std::string& filter) {
    const std::string root = filter.substr(0, filter.find(CMonitorElement::DELIMITER));
    std::string renamedPath = root;
    for (std::size_t k = 1; k < elements.size(); ++k) {
        renamedPath += CMonitorElement::DELIMITER;
        renamedPath += elements[k];
    }
    if (!CMonitorElement::IsValidName(renamedPath)) {
        return;  // refused with an error in the log; not what this target looks at
    }
    const CMonitorElement renamed(element);
    renamed.setRootName(root);
    require(renamed.getPath() == CMonitorElement(renamedPath, "").getPath(),
            "the root name is not replaced", path, filter);
    require(renamed.match(filter) == definedScan(pathElements(renamedPath), filter),
            "the renamed element differs from the defined scan", path, filter);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::size_t newline = input.find('\n');
    const std::string path = input.substr(0, newline);
    const std::string filter = newline == std::string::npos ? "" : input.substr(newline + 1);

    require(!CMonitorElement().match(filter), "an element without a path matches", "", filter);

    if (!CMonitorElement::IsValidName(path)) {
        return 0;
    }
    const CMonitorElement element(path, "");
    const std::vector<std::string> elements = pathElements(path);
    checkElement(element, elements, path, filter);

    const CMonitorElement upperElement(toUpper(path), "");
    require(upperElement.match(filter) == element.match(filter), "upper-case path differs", path,
            filter);
    const CMonitorElement lowerElement(toLower(path), "");
    require(lowerElement.match(filter) == element.match(filter), "lower-case path differs", path,
            filter);

    checkOtherRoot(element, elements, path, filter);
    return 0;
}
