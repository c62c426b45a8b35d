#include "base/ini_file.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

namespace lumetra {
namespace {

std::string_view trim(std::string_view s) {
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.front()))) {
        s.remove_prefix(1);
    }
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back()))) {
        s.remove_suffix(1);
    }
    return s;
}

// Profile files fold ASCII letters only (no locale call per character: a ROIConfig.ini may hold
// thousands of keys).
std::string folded(std::string_view name) {
    std::string out(name);
    for (char& c : out) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c + ('a' - 'A'));
        }
    }
    return out;
}

}  // namespace

std::optional<IniFile> IniFile::Load(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return std::nullopt;
    }
    std::ostringstream ss;
    ss << in.rdbuf();
    return Parse(ss.str());
}

IniFile IniFile::Parse(std::string_view text) {
    IniFile ini;
    std::string section;
    while (!text.empty()) {
        auto eol = text.find('\n');
        std::string_view line = trim(text.substr(0, eol));
        text.remove_prefix(eol == std::string_view::npos ? text.size() : eol + 1);
        if (line.empty() || line.front() == ';' || line.front() == '#') {
            continue;
        }
        if (line.front() == '[') {
            auto close = line.find(']');
            if (close != std::string_view::npos) {
                section = std::string(trim(line.substr(1, close - 1)));
            }
            continue;
        }
        auto eq = line.find('=');
        if (eq == std::string_view::npos) {
            continue;
        }
        ini.set(section, trim(line.substr(0, eq)), trim(line.substr(eq + 1)));
    }
    return ini;
}

std::string IniFile::value(std::string_view section, std::string_view key,
                           std::string_view fallback) const {
    auto s = sections_.find(folded(section));
    if (s == sections_.end()) {
        return std::string(fallback);
    }
    auto k = s->second.keys.find(folded(key));
    return k == s->second.keys.end() ? std::string(fallback) : k->second.value;
}

int IniFile::intValue(std::string_view section, std::string_view key, int fallback) const {
    if (!has(section, key)) {
        return fallback;
    }
    // Like a profile-file integer read: leading digits count, anything else gives 0.
    std::string v = value(section, key);
    return static_cast<int>(std::strtol(v.c_str(), nullptr, 10));
}

bool IniFile::has(std::string_view section, std::string_view key) const {
    auto s = sections_.find(folded(section));
    return s != sections_.end() && s->second.keys.count(folded(key)) != 0;
}

void IniFile::set(std::string_view section, std::string_view key, std::string_view value) {
    std::string sectionKey = folded(section);
    auto s = sections_.find(sectionKey);
    if (s == sections_.end()) {
        s = sections_.emplace(std::move(sectionKey), Section{std::string(section), {}}).first;
    }
    std::string keyKey = folded(key);
    auto k = s->second.keys.find(keyKey);
    if (k == s->second.keys.end()) {
        s->second.keys.emplace(std::move(keyKey), Key{std::string(key), std::string(value)});
    } else {
        k->second.value = value;  // the name keeps its first spelling
    }
}

std::string IniFile::text() const {
    // Folded order: the same text whatever order the names were set in.
    auto inOrder = [](const auto& map) {
        std::vector<const typename std::decay_t<decltype(map)>::value_type*> entries;
        entries.reserve(map.size());
        for (const auto& entry : map) {
            entries.push_back(&entry);
        }
        std::sort(entries.begin(), entries.end(),
                  [](const auto* a, const auto* b) { return a->first < b->first; });
        return entries;
    };
    std::string out;
    for (const auto* entry : inOrder(sections_)) {
        const Section& section = entry->second;
        out += "[" + section.name + "]\n";
        for (const auto* k : inOrder(section.keys)) {
            out += k->second.name + "=" + k->second.value + "\n";
        }
    }
    return out;
}

bool IniFile::Save(const std::string& path) const {
    const std::string tmp = path + ".tmp";
    {
        std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
        if (!out) {
            return false;
        }
        out << text();
        out.flush();
        if (!out) {
            out.close();
            std::remove(tmp.c_str());
            return false;
        }
    }
    std::error_code ec;
    std::filesystem::rename(tmp, path, ec);
    if (ec) {
        std::remove(tmp.c_str());
        return false;
    }
    return true;
}

}  // namespace lumetra
