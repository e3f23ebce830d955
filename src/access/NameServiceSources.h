// Which sources the name service asks for a database, as /etc/nsswitch.conf configures it.
//
// The free-uid search asks the name service about every candidate id, because another source
// (a directory service, systemd's dynamic users) may know accounts the password file does not;
// each such lookup reads the whole password file when the id is free.  When the passwd database
// is answered by the files backend alone and the library's password file is the one that backend
// reads, the entries the library has just read under the lock are the whole answer, and the
// lookups can be left out.  Only a configuration that says exactly that counts: the database's
// one line naming the service "files" and nothing else.  No line, two lines, another service or
// an action item ("[NOTFOUND=return]") all mean "ask".
#pragma once

#include <cctype>
#include <cstdio>
#include <string>
#include <vector>

#include "system/ReadToEnd.h"

namespace usermanagement::detail {

constexpr const char* kNameServiceConfiguration = "/etc/nsswitch.conf";

// Whether the text `configuration` of nsswitch.conf answers `database` from "files" alone.
inline bool answeredByFilesAlone(const std::string& configuration, const std::string& database) {
    int lines = 0;
    bool filesAlone = false;
    std::size_t start = 0;
    while (start < configuration.size()) {
        std::size_t end = configuration.find('\n', start);
        if (end == std::string::npos) end = configuration.size();
        std::string line = configuration.substr(start, end - start);
        start = end + 1;
        line = line.substr(0, line.find('#'));
        std::vector<std::string> words;
        std::string word;
        for (const char c : line + ' ') {
            if (std::isspace(static_cast<unsigned char>(c)) != 0) {
                if (!word.empty()) words.push_back(word);
                word.clear();
            } else {
                word += c;
            }
        }
        if (words.empty()) continue;
        // "passwd:" or "passwd" followed by ":" or by ":files".
        std::string key = words[0];
        std::size_t first = 1;
        const std::size_t colon = key.find(':');
        if (colon != std::string::npos) {
            if (colon + 1 < key.size()) words.insert(words.begin() + 1, key.substr(colon + 1));
            key.erase(colon);
        } else if (words.size() > 1 && words[1][0] == ':') {
            if (words[1].size() > 1) words[1].erase(0, 1);
            else first = 2;
        } else {
            continue;
        }
        // Compared without case, so that a second line of the database in other letters counts
        // as a second line rather than as none.
        if (key.size() != database.size()) continue;
        bool same = true;
        for (std::size_t i = 0; i < key.size(); ++i)
            same = same && std::tolower(static_cast<unsigned char>(key[i])) ==
                               std::tolower(static_cast<unsigned char>(database[i]));
        if (!same) continue;
        ++lines;
        filesAlone = words.size() == first + 1 && words[first] == "files";
    }
    return lines == 1 && filesAlone;
}

// The same for the system's nsswitch.conf; false when it cannot be read.
inline bool answeredByFilesAlone(const std::string& database) {
    std::FILE* file = std::fopen(kNameServiceConfiguration, "re");
    if (file == nullptr) return false;
    std::string text;
    readToEnd(file, &text);
    const bool failed = std::ferror(file) != 0;
    std::fclose(file);
    return !failed && answeredByFilesAlone(text, database);
}

}  // namespace usermanagement::detail
