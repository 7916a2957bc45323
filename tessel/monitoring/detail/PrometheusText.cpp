#include "tessel/monitoring/detail/PrometheusText.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <ostream>
#include <unordered_map>
#include <unordered_set>

namespace Tessel::Monitoring {
namespace {

bool isNameCharacter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

bool isUpper(char c) {
    return c >= 'A' && c <= 'Z';
}

bool isLowerOrDigit(char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
}

// Appends "_" and the path in snake case: a word boundary inside a path element (a capital
// after a small letter or digit, or the last capital of a run that a small letter follows:
// "CPULoad" is "cpu_load") becomes '_', as does every run of characters outside
// [a-zA-Z0-9] and every '/'; letters become small. No '_' is doubled or ends the name.
void appendSnakeCase(std::string& name, std::string_view path) {
    bool separate = true;
    for (std::size_t i = 0; i < path.size(); ++i) {
        const char c = path[i];
        if (!isNameCharacter(c) || c == '_') {
            separate = true;
            continue;
        }
        const bool boundary =
            isUpper(c) && i > 0 &&
            (isLowerOrDigit(path[i - 1]) || (isUpper(path[i - 1]) && i + 1 < path.size() &&
                                             path[i + 1] >= 'a' && path[i + 1] <= 'z'));
        if (separate || boundary) {
            name += '_';
        }
        separate = false;
        name += isUpper(c) ? static_cast<char>(c - 'A' + 'a') : c;
    }
}

bool isNumber(std::string_view text) {
    if (text.empty()) {
        return false;
    }
    for (char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
    }
    return true;
}

// Appends text as a label value: backslash, double quote and line feed escaped.
void appendLabelValue(std::string& out, std::string_view text) {
    for (char c : text) {
        if (c == '\\' || c == '"') {
            out += '\\';
            out += c;
        } else if (c == '\n') {
            out += "\\n";
        } else {
            out += c;
        }
    }
}

// Appends text to a HELP line: backslash and line feed escaped.
void appendHelp(std::string& out, std::string_view text) {
    for (char c : text) {
        if (c == '\\') {
            out += "\\\\";
        } else if (c == '\n') {
            out += "\\n";
        } else {
            out += c;
        }
    }
}

void appendValue(std::string& out, double value) {
    if (std::isnan(value)) {
        out += "NaN";
    } else if (std::isinf(value)) {
        out += value > 0 ? "+Inf" : "-Inf";
    } else {
        char digits[32];
        const auto result = std::to_chars(digits, digits + sizeof digits, value);
        out.append(digits, result.ptr);
    }
}

}  // namespace

// The name and the HELP and TYPE lines of one path (without process and id).
struct PrometheusFamily {
    std::string key;
    std::string name;
    std::string head;
    std::uint32_t id;  // dense, from 0, in the order made
};

namespace {

// The families of the process, made on first use and never forgotten. Entries do not move
// (a deque) and do not change once made, so that a reader may use an entry without the lock.
class FamilyStore {
  public:
    static FamilyStore& instance() {
        // Never destroyed: an observer may render during the exit of the process.
        static FamilyStore* store = new FamilyStore;
        return *store;
    }

    // The family of key, made with unit if it is new. hint is the id that the caller expects
    // (the one after the family it asked for last: a new observer's pass over a table that a
    // pass has seen before asks in the order of making) and becomes the next one to expect.
    const PrometheusFamily& familyOf(std::string_view key, std::string_view unit,
                                     std::uint32_t& hint) {
        std::lock_guard<std::mutex> guard(m_lock);
        const PrometheusFamily* family = nullptr;
        if (hint < m_families.size() && m_families[hint].key == key) {
            family = &m_families[hint];
        } else if (auto known = m_byKey.find(key); known != m_byKey.end()) {
            family = known->second;
        } else {
            family = &make(key, unit);
        }
        hint = family->id + 1;
        return *family;
    }

  private:
    const PrometheusFamily& make(std::string_view key, std::string_view unit) {
        std::string name = "tessel";
        appendSnakeCase(name, key);
        // Suffixes that the exposition format's conventions keep for counters, histograms
        // and summaries would mislead a reader of a gauge.
        for (std::string_view reserved : {"_total", "_count", "_sum", "_bucket"}) {
            if (name.size() >= reserved.size() &&
                name.compare(name.size() - reserved.size(), reserved.size(), reserved) == 0) {
                name += "_value";
                break;
            }
        }
        if (m_names.count(name) != 0) {
            std::string candidate;
            for (int suffix = 2;; ++suffix) {
                candidate = name + '_' + std::to_string(suffix);
                if (m_names.count(candidate) == 0) {
                    break;
                }
            }
            name = std::move(candidate);
        }
        PrometheusFamily& family = m_families.emplace_back();
        family.id = static_cast<std::uint32_t>(m_families.size() - 1);
        family.key = key;
        family.name = name;
        family.head = "# HELP " + name + ' ';
        appendHelp(family.head, key);
        if (!unit.empty()) {
            family.head += ", in ";
            appendHelp(family.head, unit);
        }
        family.head += "\n# TYPE " + name + " gauge\n";
        m_names.insert(std::move(name));
        m_byKey.emplace(std::string(key), &family);
        return family;
    }

    // Hashing and comparing through string_view, so that a lookup makes no string.
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(std::string_view text) const {
            return std::hash<std::string_view>()(text);
        }
    };

    std::mutex m_lock;
    std::deque<PrometheusFamily> m_families;  // guarded by m_lock, entries immutable
    std::unordered_map<std::string, const PrometheusFamily*, Hash, std::equal_to<>> m_byKey;
    std::unordered_set<std::string, Hash, std::equal_to<>> m_names;
};

}  // namespace

void PrometheusText::begin() {
    ++m_pass;
    m_position = 0;
    m_families.clear();
    m_samples.clear();
    m_sampleText.clear();
    m_ranksInOrder = true;
}

void PrometheusText::add(std::string_view path, std::size_t skipElements, std::string_view unit,
                         double value) {
    m_elements.clear();
    for (std::size_t start = 0;;) {
        const std::size_t end = path.find('/', start);
        m_elements.push_back(path.substr(start, end - start));
        if (end == std::string_view::npos) {
            break;
        }
        start = end + 1;
    }
    const bool process = m_elements.size() >= 3 && isNumber(m_elements[1]);
    std::size_t first = std::max<std::size_t>(process ? 2 : 0, skipElements);
    first = std::min(first, m_elements.size() - 1);
    const std::size_t keyStart = static_cast<std::size_t>(m_elements[first].data() - path.data());
    const std::string_view key = path.substr(keyStart);
    if (m_position == m_known.size()) {
        m_known.push_back({std::string(key), nullptr});
    } else if (m_known[m_position].key != key) {
        m_known[m_position].key = key;
        m_known[m_position].family = nullptr;
    }
    if (m_known[m_position].family == nullptr) {
        m_known[m_position].family = &FamilyStore::instance().familyOf(key, unit, m_hint);
    }
    const PrometheusFamily& family = *m_known[m_position++].family;

    if (family.id >= m_seenPass.size()) {
        m_seenPass.resize(family.id + 1, 0);
        m_rank.resize(family.id + 1, 0);
    }
    if (m_seenPass[family.id] != m_pass) {
        m_seenPass[family.id] = m_pass;
        m_rank[family.id] = static_cast<std::uint32_t>(m_families.size());
        m_families.push_back(&family);
    }
    const std::uint32_t rank = m_rank[family.id];
    m_ranksInOrder = m_ranksInOrder && (m_samples.empty() || m_samples.back().rank <= rank);

    const std::size_t begin = m_sampleText.size();
    if (process) {
        m_sampleText += "{process=\"";
        appendLabelValue(m_sampleText, m_elements[0]);
        m_sampleText += "\",pid=\"";
        m_sampleText += m_elements[1];
        m_sampleText += "\"}";
    }
    m_sampleText += ' ';
    appendValue(m_sampleText, value);
    m_sampleText += '\n';
    m_samples.push_back({rank, static_cast<std::uint32_t>(begin),
                         static_cast<std::uint32_t>(m_sampleText.size() - begin)});
}

void PrometheusText::write(std::ostream& out) {
    // The samples of one family go together: those of a family met again later (another
    // process's) move up behind its first ones.
    if (!m_ranksInOrder) {
        std::stable_sort(m_samples.begin(), m_samples.end(),
                         [](const Sample& a, const Sample& b) { return a.rank < b.rank; });
    }
    m_text.clear();
    std::uint32_t rank = UINT32_MAX;
    for (const Sample& sample : m_samples) {
        const PrometheusFamily& family = *m_families[sample.rank];
        if (sample.rank != rank) {
            rank = sample.rank;
            m_text += family.head;
        }
        m_text += family.name;
        m_text.append(m_sampleText, sample.begin, sample.length);
    }
    out.write(m_text.data(), static_cast<std::streamsize>(m_text.size()));
}

}  // namespace Tessel::Monitoring
