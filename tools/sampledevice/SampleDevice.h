// The sample device as data, read from sample-device.txt, the one description that the
// sandbox builds /etc from: the tests take accounts, groups and passwords from here instead of
// writing them out again.  The profile catalogue is the device's configuration (device.conf).
//
// The description is compiled in (the file is a C++ string literal), so a host such as umctl
// needs nothing but this header, and a change to the file rebuilds whatever includes it.
// A record that cannot be read throws std::runtime_error naming it.
#pragma once

#include <cstddef>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace tvc::sample {

struct Account {
    std::string name;
    unsigned int uid = 0;
    std::string group, gecos, home, shell;
    std::string password;  // the test password; empty for a locked account
    std::string shadow;    // the shadow password field: its hash, or '*' / '!'
};

struct Group {
    std::string name;
    unsigned int gid = 0;
    std::vector<std::string> members;
};

struct SampleDevice {
    std::vector<Account> accounts;
    std::vector<Group> groups;
    std::string aging;  // the shadow fields after the password field
    // The next software version (the migration's reference copies): what it adds and drops.
    std::vector<Account> nextAccounts;
    std::vector<Group> nextGroups;
    std::vector<std::string> nextDrops;

    // std::out_of_range for a name the device does not have.
    const Account& account(const std::string& name) const { return named(accounts, name); }
    const Group& group(const std::string& name) const { return named(groups, name); }

private:
    template <class Record>
    static const Record& named(const std::vector<Record>& records, const std::string& name) {
        for (const Record& record : records)
            if (record.name == name) return record;
        throw std::out_of_range("the sample device has no " + name);
    }
};

namespace detail {

inline std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> fields;
    std::size_t begin = 0;
    for (std::size_t end; (end = text.find(separator, begin)) != std::string::npos; begin = end + 1)
        fields.push_back(text.substr(begin, end - begin));
    fields.push_back(text.substr(begin));
    return fields;
}

// "a,b" -> {a, b}; "" -> {}.
inline std::vector<std::string> list(const std::string& text) {
    return text.empty() ? std::vector<std::string>{} : split(text, ',');
}

inline long number(const std::string& text, const std::string& line) {
    std::size_t used = 0;
    long value = 0;
    try {
        value = std::stol(text, &used);
    } catch (const std::logic_error&) {
        used = 0;
    }
    if (text.empty() || used != text.size()) throw std::runtime_error("sample device: bad number in: " + line);
    return value;
}

inline SampleDevice parse(const std::string& text) {
    SampleDevice device;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.empty() || line[0] == '#') continue;
        const std::vector<std::string> f = split(line, ':');
        const auto want = [&](std::size_t count) {
            if (f.size() != count) throw std::runtime_error("sample device: bad record: " + line);
        };
        if (f[0] == "account" || f[0] == "next-account") {
            want(9);
            (f[0] == "account" ? device.accounts : device.nextAccounts)
                .push_back(
                    Account{f[1], static_cast<unsigned int>(number(f[2], line)), f[3], f[4], f[5], f[6], f[7], f[8]});
        } else if (f[0] == "group" || f[0] == "next-group") {
            want(4);
            (f[0] == "group" ? device.groups : device.nextGroups)
                .push_back(Group{f[1], static_cast<unsigned int>(number(f[2], line)), list(f[3])});
        } else if (f[0] == "next-drop") {
            want(2);
            device.nextDrops.push_back(f[1]);
        } else if (f[0] == "aging") {
            device.aging = line.substr(line.find(':') + 1);
        } else {
            throw std::runtime_error("sample device: unknown record: " + line);
        }
    }
    return device;
}

}  // namespace detail

// The description, read once.
inline const SampleDevice& sampleDevice() {
    static const SampleDevice device = detail::parse(
#include "sample-device.txt"
    );
    return device;
}

}  // namespace tvc::sample
