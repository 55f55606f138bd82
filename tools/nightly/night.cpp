#include "night.h"

#include <algorithm>
#include <filesystem>

#include <nlohmann/json.hpp>

#include "failure.h"
#include "moments.h"
#include "text.h"

namespace nightly {

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

constexpr const char* LevelNames[] = {"full", "changed"};
constexpr const char* VerdictNames[] = {"good", "good with gaps", "suspicious", "failed"};

template <class Value, std::size_t Count>
Value ValueNamed(const std::string& name, const char* const (&names)[Count]) {
    for (std::size_t i = 0; i < Count; ++i)
        if (name == names[i])
            return static_cast<Value>(i);
    throw Failure("unknown name");
}

} // namespace

const char* LevelName(Level level) {
    return LevelNames[static_cast<std::size_t>(level)];
}

const char* VerdictName(Verdict verdict) {
    return VerdictNames[static_cast<std::size_t>(verdict)];
}

std::string Night::Name() const {
    return NightName(moment);
}

std::string AttemptFile(const char* name, int retry) {
    if (retry == 0)
        return name;
    const std::string_view text = name;
    const std::string_view kind = text.substr(text.find('.') == text.npos ? 0 : text.find('.') + 1);
    return "retry" + std::to_string(retry) + "." + std::string(kind);
}

std::string SumsFileOf(const std::string& archive) {
    return archive.substr(0, archive.rfind('.')) + ".sum";
}

std::vector<std::string> ExistingArchives(const Night& night) {
    std::vector<std::string> archives;
    for (int retry = 0; retry <= MostRetries; ++retry)
        if (const std::string name = AttemptFile(NightFiles::Archive, retry); Exists(night.File(name)))
            archives.push_back(name);
    return archives;
}

std::string EncodeRecord(const NightRecord& record) {
    Json json{{"name", record.name},
              {"server", record.server},
              {"sequence", record.sequence},
              {"level", LevelName(record.level)},
              {"verdict", VerdictName(record.verdict)},
              {"reasons", record.reasons},
              {"started", record.started},
              {"ended", record.ended}};
    if (record.base)
        json["base"] = NightName(*record.base);
    if (record.cutoff)
        json["changed_since"] = *record.cutoff;
    json.update(Json{{"exit_status", record.exit_status},
                     {"retries", record.retries},
                     {"attempted", record.attempted},
                     {"objects", record.objects},
                     {"missing", record.missing},
                     {"newly_missing", record.newly_missing},
                     {"missed_lines", record.missed_lines},
                     {"bytes", record.bytes},
                     {"archives", record.archives},
                     {"archive_bytes", record.archive_bytes},
                     {"catalog_is_covered", record.catalog_is_covered}});
    return json.dump(2, ' ', true, Json::error_handler_t::replace) + "\n";
}

std::optional<NightRecord> DecodeRecord(const std::string& text) {
    try {
        const Json json = Json::parse(text);
        NightRecord record;
        record.name = json.at("name");
        record.server = json.at("server");
        record.sequence = json.at("sequence");
        record.level = ValueNamed<Level>(json.at("level"), LevelNames);
        record.verdict = ValueNamed<Verdict>(json.at("verdict"), VerdictNames);
        record.reasons = json.at("reasons").get<std::vector<std::string>>();
        record.started = json.at("started");
        record.ended = json.at("ended");
        if (json.contains("base"))
            record.base = ParseNightName(json.at("base").get<std::string>());
        if (json.contains("changed_since"))
            record.cutoff = json.at("changed_since").get<std::time_t>();
        record.exit_status = json.at("exit_status");
        record.retries = json.at("retries");
        record.attempted = json.at("attempted");
        record.objects = json.at("objects");
        record.missing = json.at("missing");
        record.newly_missing = json.at("newly_missing");
        record.missed_lines = json.value("missed_lines", std::uint64_t{record.missing > 0}); // older records lack it
        record.bytes = json.at("bytes");
        record.archives = json.at("archives").get<std::vector<std::string>>();
        record.archive_bytes = json.at("archive_bytes").get<std::vector<std::uint64_t>>();
        record.catalog_is_covered = json.at("catalog_is_covered");
        if (record.archives.size() != record.archive_bytes.size())
            return std::nullopt;
        for (const std::string& archive : record.archives)
            if (archive.find('/') != archive.npos)
                return std::nullopt;
        return record;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

std::optional<NightRecord> ReadRecord(const Night& night, const char* name) {
    const std::string path = night.File(name);
    std::error_code error;
    const bool exists = fs::exists(path, error);
    if (error)
        throw Failure(path + ": " + error.message());
    return exists ? DecodeRecord(ReadSmallFile(path)) : std::nullopt;
}

namespace {

// Whether all archives are there, as large as they were when the night was judged.
bool HasArchives(const Night& night) {
    if (night.removed)
        return false;
    // Whatever a night that is not good left takes room, sound or not.
    if (!night.record || !IsGood(night.record->verdict))
        return !ExistingArchives(night).empty();
    const NightRecord& record = *night.record;
    for (std::size_t i = 0; i < record.archives.size(); ++i) {
        std::error_code error;
        if (fs::file_size(night.File(record.archives[i]), error) != record.archive_bytes[i] || error)
            return false;
    }
    return !record.archives.empty();
}

// The file begins with the time, written like the name of a night.
std::time_t ReadRemovalTime(const Night& night) {
    try {
        const std::string text = ReadSmallFile(night.File(NightFiles::Removed));
        return ParseNightName(text.substr(0, text.find(':'))).value_or(0);
    } catch (const Failure&) {
        return 0;
    }
}

std::optional<Night> ReadNight(const fs::directory_entry& entry) {
    std::string name = entry.path().filename();
    Night night;
    night.complete = !name.ends_with(IncompleteSuffix);
    if (!night.complete)
        name.resize(name.size() - std::string_view(IncompleteSuffix).size());
    const std::optional<std::time_t> moment = ParseNightName(name);
    if (!moment || entry.is_symlink() || !entry.is_directory())
        return std::nullopt;
    night.moment = *moment;
    night.path = entry.path();
    night.record = ReadRecord(night, NightFiles::Record);
    night.foreign = night.record && night.record->started != night.moment;
    night.removed = Exists(night.File(NightFiles::Removed));
    if (night.removed)
        night.archive_gone = ReadRemovalTime(night);
    night.has_archive = HasArchives(night);
    return night;
}

} // namespace

std::vector<Night> ListNights(const std::string& directory) {
    std::vector<Night> nights;
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(directory, error))
        if (std::optional<Night> night = ReadNight(entry))
            nights.push_back(std::move(*night));
    if (error)
        throw Failure(directory + ": " + error.message());
    std::sort(nights.begin(), nights.end(), [](const Night& one, const Night& other) {
        return one.moment != other.moment ? one.moment < other.moment : one.complete < other.complete;
    });
    for (std::size_t i = 1; i < nights.size(); ++i)
        if (nights[i].moment == nights[i - 1].moment)
            nights[i - 1].foreign = true; // a copy of the complete one
    return nights;
}

std::uint64_t NextSequence(const std::vector<Night>& nights) {
    std::uint64_t last = 0;
    for (const Night& night : nights)
        last = std::max(last, night.record ? night.record->sequence : 0);
    // A record that cannot be read now may have any of the next numbers, and be put right later.
    const auto unreadable =
        std::count_if(nights.begin(), nights.end(), [](const Night& night) { return !night.record; });
    return last + 1 + static_cast<std::uint64_t>(unreadable);
}

std::vector<Night> ListOwnNights(const Config& config) {
    std::vector<Night> nights = ListNights(config.directory);
    for (const Night& night : nights)
        if (night.record && night.record->name != config.name)
            throw Failure(config.directory + ": " + night.Name() + " is a night of \"" + night.record->name +
                          "\", not of \"" + config.name + "\": give each server a directory of its own");
    return nights;
}

std::vector<std::string> FindOddNights(const std::vector<Night>& nights, std::time_t now) {
    struct Kind {
        const char* text;
        bool (*applies)(const Night& night, std::time_t now);
    };
    static constexpr Kind kinds[] = {{"its name lies in the future; check the clock",
                                      [](const Night& night, std::time_t moment) { return night.moment > moment; }},
                                     {"its record belongs to a night of another name",
                                      [](const Night& night, std::time_t) { return night.foreign; }},
                                     {"its run.json is missing or damaged", [](const Night& night, std::time_t) {
                                          return night.IsBroken() && !night.removed;
                                      }}};
    std::vector<std::string> sentences;
    for (const Kind& kind : kinds) {
        const Night* first = nullptr;
        std::size_t count = 0;
        for (const Night& night : nights)
            if (kind.applies(night, now) && count++ == 0)
                first = &night;
        if (count > 0)
            sentences.push_back(first->Name() + ": " + kind.text +
                                (count > 1 ? FormatText(" (and %zu more)", count - 1) : ""));
    }
    return sentences;
}

std::vector<const Night*> Restorable(const std::vector<Night>& nights) {
    std::vector<const Night*> found;
    const std::time_t now = std::time(nullptr);
    for (const Night& night : nights)
        if (night.IsGood() && night.has_archive && night.moment <= now)
            found.push_back(&night);
    return found;
}

const Night* FindNight(const std::vector<Night>& nights, std::time_t moment) {
    const auto after = std::upper_bound(nights.begin(), nights.end(), moment,
                                        [](std::time_t wanted, const Night& night) { return wanted < night.moment; });
    return after != nights.begin() && std::prev(after)->moment == moment ? &*std::prev(after) : nullptr;
}

const Night* LastGood(const std::vector<Night>& nights, std::time_t moment, std::optional<Level> level) {
    const auto found = std::find_if(nights.rbegin(), nights.rend(), [&](const Night& night) {
        return night.moment < moment && night.IsGood() && (!level || night.record->level == *level);
    });
    return found == nights.rend() ? nullptr : &*found;
}

double UsualSeconds(const std::vector<Night>& nights, Level level, std::time_t moment) {
    constexpr std::size_t most = 30;
    std::vector<double> seconds;
    for (auto night = nights.rbegin(); night != nights.rend() && seconds.size() < most; ++night)
        if (night->moment < moment && night->IsGood() && night->record->level == level)
            seconds.push_back(night->record->Seconds());
    std::sort(seconds.begin(), seconds.end());
    return seconds.empty() ? 0 : seconds[seconds.size() / 2];
}

std::vector<const Night*> ChainOf(const std::vector<Night>& nights, const Night& night) {
    std::vector<const Night*> chain;
    for (const Night* link = &night;;) {
        if (link == nullptr || !link->record || !link->has_archive)
            return {};
        chain.insert(chain.begin(), link);
        if (link->record->level == Level::Full)
            return chain;
        // Each link is older than the one before it, so that the walk ends.
        const std::optional<std::time_t> base = link->record->base;
        link = base && *base < link->moment ? FindNight(nights, *base) : nullptr;
    }
}

const Night& NamedNight(const std::vector<Night>& nights, const std::string& name) {
    if (name.empty()) {
        const std::vector<const Night*> restorable = Restorable(nights);
        if (restorable.empty())
            throw Failure("there is no good night with its archive");
        return *restorable.back();
    }
    const std::optional<std::time_t> moment = ParseNightName(name);
    const Night* const night = moment ? FindNight(nights, *moment) : nullptr;
    if (night == nullptr)
        throw Failure(name + ": no such night; \"vondral-nightly status\" and the directory have their names");
    return *night;
}

} // namespace nightly
