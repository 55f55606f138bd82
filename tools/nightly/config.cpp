#include "config.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <functional>

#include <sys/stat.h>
#include <unistd.h>

#include <toml++/toml.h>

#include "disk.h"
#include "failure.h"
#include "moments.h"
#include "object_kind.h"
#include "text.h"

namespace nightly {

namespace {

constexpr std::array<const char*, 7> Weekdays{"Sunday",   "Monday", "Tuesday", "Wednesday",
                                              "Thursday", "Friday", "Saturday"};

[[noreturn]] void FailAt(const toml::source_region& place, const std::string& why) {
    throw Failure(FormatText("%s:%u:%u: %s", place.path ? place.path->c_str() : "", place.begin.line,
                             place.begin.column, why.c_str()));
}

// What a key accepts, and how it is stored.
using Reader = std::function<void(const toml::node& value)>;
struct Key {
    const char* name;
    Reader read;
    bool required = false;
};

[[noreturn]] void RefuseType(const toml::node& value, const char* wanted) {
    FailAt(value.source(), std::string("must be ") + wanted);
}

std::string AsText(const toml::node& value) {
    const std::optional<std::string> text = value.value_exact<std::string>();
    if (!text)
        RefuseType(value, "a text in quotes");
    if (text->empty() || std::any_of(text->begin(), text->end(), IsControl))
        RefuseType(value, "a text without control characters, and not empty");
    return *text;
}

Reader Text(std::string& target) {
    return [&target](const toml::node& value) { target = AsText(value); };
}

Reader FullPath(std::string& target) {
    return [&target](const toml::node& value) {
        target = AsText(value);
        if (target.front() != '/')
            RefuseType(value, "a path that begins with a slash");
    };
}

Reader Flag(bool& target) {
    return [&target](const toml::node& value) {
        const std::optional<bool> flag = value.value_exact<bool>();
        if (!flag)
            RefuseType(value, "true or false");
        target = *flag;
    };
}

template <class Number>
Reader Whole(Number& target, std::int64_t least, std::int64_t most) {
    return [&target, least, most](const toml::node& value) {
        const std::optional<std::int64_t> number = value.value_exact<std::int64_t>();
        if (!number || *number < least || *number > most)
            RefuseType(value, FormatText("a number from %lld to %lld", static_cast<long long>(least),
                                         static_cast<long long>(most))
                                  .c_str());
        target = static_cast<Number>(*number);
    };
}

Reader Duration(std::int64_t& target) {
    return [&target](const toml::node& value) {
        const std::optional<std::int64_t> seconds = ParseDuration(AsText(value));
        if (!seconds)
            RefuseType(value, "a duration, such as \"15m\", \"26h\", \"400d\" or \"2y\"");
        target = *seconds;
    };
}

template <class Target>
Reader Share(Target& target) {
    return [&target](const toml::node& value) {
        const std::optional<double> share = ParseShare(AsText(value));
        if (!share)
            RefuseType(value, "a share, such as \"0%\" or \"20%\"");
        target = *share;
    };
}

std::vector<std::string> AsTexts(const toml::node& value, const char* wanted) {
    const toml::array* const list = value.as_array();
    if (list == nullptr)
        RefuseType(value, wanted);
    std::vector<std::string> texts;
    for (const toml::node& item : *list)
        texts.push_back(AsText(item));
    return texts;
}

Reader Commands(std::vector<std::string>& target) {
    return [&target](const toml::node& value) { target = AsTexts(value, "a list of commands in quotes"); };
}

Reader FullDays(std::vector<int>& target) {
    return [&target](const toml::node& value) {
        for (const std::string& name : AsTexts(value, "a list of weekdays")) {
            const auto day = std::find(Weekdays.begin(), Weekdays.end(), name);
            if (day == Weekdays.end())
                RefuseType(value, "a list of weekdays, such as [\"Sunday\"]");
            target.push_back(static_cast<int>(day - Weekdays.begin()));
        }
        if (target.empty())
            RefuseType(value, "a list of at least one weekday");
    };
}

Reader OneWord(const char* word) {
    return [word](const toml::node& value) {
        if (AsText(value) != word)
            RefuseType(value, FormatText("\"%s\"", word).c_str());
    };
}

void ReadTable(const toml::table& table, const std::vector<Key>& keys) {
    for (const auto& [name, value] : table) {
        const auto key =
            std::find_if(keys.begin(), keys.end(), [&name = name](const Key& one) { return name.str() == one.name; });
        if (key == keys.end())
            FailAt(name.source(), "unknown key: " + std::string(name.str()));
        try {
            key->read(value);
        } catch (const Failure& failure) {
            const std::string_view what = failure.what();
            const std::size_t at = what.find(": must be ");
            if (at == what.npos)
                throw;
            throw Failure(std::string(what).insert(at + 2, std::string(key->name) + " "));
        }
    }
    for (const Key& key : keys)
        if (key.required && !table.contains(key.name))
            FailAt(table.source(), std::string("the key ") + key.name + " is missing");
}

Reader Table(std::vector<Key> keys) {
    return [keys = std::move(keys)](const toml::node& value) {
        const toml::table* const table = value.as_table();
        if (table == nullptr)
            RefuseType(value, "a table, such as { key = value }");
        ReadTable(*table, keys);
    };
}

// A table whose record exists only when the table does.
template <class Record>
Reader Optional(std::optional<Record>& target, std::vector<Key> (*keys)(Record&)) {
    return [&target, keys](const toml::node& value) { Table(keys(target.emplace()))(value); };
}

std::vector<Key> DrillKeys(DrillPlan& drill) {
    return {{"server", Text(drill.server), true},
            {"library", FullPath(drill.library), true},
            {"as", FullPath(drill.as), true},
            {"pin", Text(drill.pin)}};
}

std::vector<Key> TlsKeys(TlsRules& tls) {
    return {{"ca", FullPath(tls.ca)}, {"pin", Text(tls.pin)}};
}

std::vector<Key> KeysOf(Config& config) {
    constexpr std::int64_t many = 100000;
    KeepRules& keep = config.keep;
    return {
        {"server", Text(config.server), true},
        {"login", Text(config.login), true},
        {"passphrase", Text(config.passphrase), true},
        {"timezone", Text(config.timezone)},
        {"directory", FullPath(config.directory)},
        {"include", FullPath(config.include)},
        {"exclude", FullPath(config.exclude)},
        {"precheck", Flag(config.precheck)},
        {"wait", Whole(config.wait, -1, 99999)},
        {"timeout", Whole(config.timeout, 1, 99999)},
        {"level", Table({{"full", FullDays(config.level.full_days), true},
                         {"otherwise", OneWord("changed"), true},
                         {"margin", Duration(config.level.margin)},
                         {"max_shrink", Share(config.level.max_shrink)}})},
        {"keep", Table({{"last", Whole(keep.last, 0, many)},
                        {"daily", Whole(keep.daily, 0, many)},
                        {"weekly", Whole(keep.weekly, 0, many)},
                        {"monthly", Whole(keep.monthly, 0, many)},
                        {"records", Duration(keep.records)},
                        {"forget_after", Duration(keep.forget_after)}})},
        {"tolerate", Share(config.tolerate)},
        {"max_shrink", Share(config.max_shrink)},
        {"retry", Table({{"times", Whole(config.retries, 0, 8), true}, {"wait", Duration(config.retry_wait)}})},
        {"hooks", Table({{"on_start", Commands(config.hooks.on_start)},
                         {"on_success", Commands(config.hooks.on_success)},
                         {"on_failure", Commands(config.hooks.on_failure)},
                         {"limit", Duration(config.hooks.limit)}})},
        {"drill", Optional<DrillPlan>(config.drill, DrillKeys)},
        {"tls", Optional<TlsRules>(config.tls, TlsKeys)},
        {"metrics", FullPath(config.metrics)},
    };
}

// Keys that are good one by one but not together.
void RefuseContradictions(const Config& config, const toml::table& table) {
    const auto refuse = [&table](const char* key, const std::string& why) {
        FailAt(table.contains(key) ? table.get(key)->source() : table.source(), why);
    };
    const KeepRules& keep = config.keep;
    if (keep.last + keep.daily + keep.weekly + keep.monthly == 0)
        refuse("keep", "keep: last, daily, weekly and monthly are all 0, so that no night would be kept");
    if (keep.records < keep.forget_after)
        refuse("keep", "keep: records must not be shorter than forget_after, which is read from them");
    if (!config.level.full_days.empty() && config.level.margin < 60)
        refuse("level", "level: margin must be at least a minute: listings tell times to the minute");
    if (!config.level.full_days.empty() && !config.knows_timezone)
        refuse("level", "level: needs the key timezone: listings tell times in the server's zone");
    const auto is_library = [](const std::string& path) {
        return ClassifyPath(path) == ObjectKind::Library && HasLibrarySuffix(path);
    };
    if (config.drill && (!is_library(config.drill->library) || !is_library(config.drill->as)))
        refuse("drill", "drill: library and as must be libraries, such as \"/QSYS.LIB/TESTLIB.LIB\"");
    if (config.drill && !config.drill->pin.empty() && !config.tls)
        refuse("drill", "drill: pin needs the key tls");
    if (config.drill && !config.drill->pin.empty() && config.drill->server == config.server)
        refuse("drill", "drill: pin is for another server than the one that is saved, whose pin is in tls");
    if (!IsTimeZone(config.timezone))
        refuse("timezone", "timezone must be the name of a zone, such as \"Europe/Berlin\"");
    if (!config.passphrase.starts_with("file:/") && !config.passphrase.starts_with("credential:"))
        refuse("passphrase", "passphrase must be \"file:/PATH\" or \"credential:NAME\"");
    if (config.login.find(':') != std::string::npos)
        refuse("login", "login must not contain a colon");
}

} // namespace

Config ReadConfig(const std::string& config_directory, const std::string& name) {
    constexpr const char* plain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-";
    if (name.empty() || name.find_first_not_of(plain) != name.npos || name.starts_with('.'))
        throw Failure(name + ": not the name of a configuration: letters, digits and . _ - only");
    const std::string path = config_directory + "/" + name + ".toml";
    Config config;
    config.name = name;
    config.directory = "/var/lib/vondral/" + name;
    toml::table table;
    const std::string text = ReadSmallFile(path);
    try {
        table = toml::parse(text, path);
    } catch (const toml::parse_error& error) {
        FailAt(error.source(), std::string(error.description()));
    }
    ReadTable(table, KeysOf(config));
    config.knows_timezone = table.contains("timezone");
    RefuseContradictions(config, table);
    return config;
}

std::vector<std::string> ListServers(const std::string& config_directory) {
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(config_directory, error))
        if (entry.path().extension() == ".toml")
            names.push_back(entry.path().stem());
    if (error)
        throw Failure(config_directory + ": " + error.message());
    std::sort(names.begin(), names.end());
    return names;
}

namespace {

std::string Quoted(const std::string& text) {
    std::string quoted = "\"";
    for (const char character : text) {
        if (character == '"' || character == '\\')
            quoted += '\\';
        quoted += character;
    }
    return quoted + '"';
}

std::string QuotedList(const std::vector<std::string>& texts) {
    std::string list;
    for (const std::string& text : texts)
        list += (list.empty() ? "" : ", ") + Quoted(text);
    return "[" + list + "]";
}

std::string Seconds(std::int64_t seconds) {
    static constexpr std::array<std::pair<std::int64_t, char>, 3> units{{{86400, 'd'}, {3600, 'h'}, {60, 'm'}}};
    for (const auto& [size, unit] : units)
        if (seconds > 0 && seconds % size == 0)
            return FormatText("\"%lld%c\"", static_cast<long long>(seconds / size), unit);
    return FormatText("\"%llds\"", static_cast<long long>(seconds));
}

std::string Percent(double share) {
    return FormatText("\"%.6g%%\"", share * 100);
}

std::string ShowLevel(const Config& config) {
    if (config.level.full_days.empty())
        return "# level: every night is full\n";
    std::vector<std::string> days;
    for (const int day : config.level.full_days)
        days.emplace_back(Weekdays[static_cast<std::size_t>(day)]);
    return "level = { full = " + QuotedList(days) +
           ", otherwise = \"changed\", margin = " + Seconds(config.level.margin) +
           ", max_shrink = " + Percent(config.level.max_shrink.value_or(config.max_shrink)) + " }\n";
}

std::string ShowKeep(const KeepRules& keep) {
    return FormatText("keep = { last = %llu, daily = %llu, weekly = %llu, monthly = %llu, records = %s, "
                      "forget_after = %s }\n",
                      Printable(keep.last), Printable(keep.daily), Printable(keep.weekly), Printable(keep.monthly),
                      Seconds(keep.records).c_str(), Seconds(keep.forget_after).c_str());
}

std::string ShowText(const char* key, const std::string& value) {
    return value.empty() ? std::string("# ") + key + ": none\n" : key + (" = " + Quoted(value)) + "\n";
}

} // namespace

std::string ShowConfig(const Config& config) {
    std::string text = ShowText("server", config.server) + ShowText("login", config.login) +
                       ShowText("passphrase", config.passphrase) + ShowText("timezone", config.timezone) +
                       ShowText("directory", config.directory) + ShowText("include", config.include) +
                       ShowText("exclude", config.exclude);
    text += FormatText("precheck = %s\nwait = %lld\ntimeout = %lld\n", config.precheck ? "true" : "false",
                       static_cast<long long>(config.wait), static_cast<long long>(config.timeout));
    text += ShowLevel(config) + ShowKeep(config.keep) + "tolerate = " + Percent(config.tolerate) +
            "\nmax_shrink = " + Percent(config.max_shrink) + "\n";
    text += FormatText("retry = { times = %llu, wait = %s }\n", Printable(config.retries),
                       Seconds(config.retry_wait).c_str());
    text += "hooks = { on_start = " + QuotedList(config.hooks.on_start) +
            ", on_success = " + QuotedList(config.hooks.on_success) +
            ", on_failure = " + QuotedList(config.hooks.on_failure) + ", limit = " + Seconds(config.hooks.limit) +
            " }\n";
    if (config.drill)
        text += "drill = { server = " + Quoted(config.drill->server) + ", library = " + Quoted(config.drill->library) +
                ", as = " + Quoted(config.drill->as) +
                (config.drill->pin.empty() ? "" : ", pin = " + Quoted(config.drill->pin)) + " }\n";
    if (config.tls) {
        text += "tls = { " + (config.tls->ca.empty() ? "" : "ca = " + Quoted(config.tls->ca));
        text += config.tls->ca.empty() || config.tls->pin.empty() ? "" : ", ";
        text += (config.tls->pin.empty() ? "" : "pin = " + Quoted(config.tls->pin)) + " }\n";
    }
    return text + ShowText("metrics", config.metrics);
}

std::string PassphraseFile(const Config& config) {
    std::string_view source = config.passphrase;
    std::string path;
    if (ConsumePrefix(source, "credential:")) {
        const char* const directory = std::getenv("CREDENTIALS_DIRECTORY");
        if (directory == nullptr)
            throw Failure(config.passphrase + ": CREDENTIALS_DIRECTORY is not set: credentials exist only in a unit "
                                              "with LoadCredential=");
        path = std::string(directory) + "/" + std::string(source);
    } else {
        ConsumePrefix(source, "file:");
        path = source;
    }
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0 || ::access(path.c_str(), R_OK) != 0)
        throw Failure(ctar::WithReason("passphrase: " + path));
    if ((status.st_mode & 077) != 0 && config.passphrase.starts_with("file:"))
        throw Failure("passphrase: " + path + ": others can read it; run: chmod 600 " + path);
    return path;
}

} // namespace nightly
