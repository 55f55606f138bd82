#include "findings.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include <nlohmann/json.hpp>

#include "commands.h"
#include "messages.h"

namespace ctar {

namespace {

using nlohmann::ordered_json;

double Percent(std::int64_t part, std::int64_t whole) {
    return whole > 0 ? 100.0 * static_cast<double>(part) / static_cast<double>(whole) : 100.0;
}

} // namespace

void Findings::Report(const FindingKind& kind, std::int64_t offset, const std::string& name, const std::string& text) {
    ++count_;
    is_repairable_ = is_repairable_ || kind.is_repairable;
    progress_.Clear();
    const std::string archive = Escape(path_);
    if (json_) {
        const ordered_json line{
            {"archive", archive}, {"offset", offset}, {"finding", kind.code}, {"name", Escape(name)}, {"text", text}};
        std::printf("%s\n", line.dump().c_str());
        return;
    }
    std::printf("%s: %s: %s: %s%s%s\n", archive.c_str(), FormatOffset(offset).c_str(), kind.code, Escape(name).c_str(),
                name.empty() ? "" : ": ", text.c_str());
}

void Findings::PrintJsonSummary(std::int64_t entries, const Compared& compared, const std::string& repair) const {
    ordered_json line{{"archive", Escape(path_)}, {"entries", entries}, {"findings", count_}, {"mend", repair}};
    if (compared.is_active)
        line.update({{"compared_entries", compared.entries},
                     {"compared_bytes", compared.bytes},
                     {"sums_entries", compared.all_entries},
                     {"sums_bytes", compared.all_bytes}});
    std::printf("%s\n", line.dump().c_str());
}

void Findings::PrintSummary(std::int64_t entries, const Compared& compared) const {
    const std::string archive = Escape(path_);
    if (compared.is_active)
        std::printf("%s: compared the data of %lld of %s (%.1f %%), %lld of %lld bytes (%.1f %%)\n", archive.c_str(),
                    static_cast<long long>(compared.entries),
                    FormatCount(compared.all_entries, "entry", "entries").c_str(),
                    Percent(compared.entries, compared.all_entries), static_cast<long long>(compared.bytes),
                    static_cast<long long>(compared.all_bytes), Percent(compared.bytes, compared.all_bytes));
    const bool headers_only = compared.is_active && compared.entries == 0 && compared.all_entries > 0;
    std::printf("%s: %s, %s\n", archive.c_str(), FormatCount(entries, "entry", "entries").c_str(),
                count_ > 0     ? FormatCount(count_, "finding", "findings").c_str()
                : headers_only ? "headers sound, no data compared"
                               : "sound");
}

int Findings::Finish(std::int64_t entries, const Compared& compared, Advice advice) {
    progress_.Clear();
    const std::string word = QuoteForShell((path_.starts_with('-') ? "./" : "") + path_); // not an option
    const bool salvage = is_repairable_ && advice == Advice::Salvage;
    const std::string repair = !salvage ? "" : "ctar salvage " + (path_ == "-" ? "ARCHIVE" : word) + " -o NEW";
    if (json_) {
        PrintJsonSummary(entries, compared, repair);
        return count_ == 0 ? ExitSuccess : ExitFaults;
    }
    PrintSummary(entries, compared);
    const std::string archive = Escape(path_);
    if (advice == Advice::None)
        std::printf("%s: no block is a header or a sentinel: not an archive, or shifted\n", archive.c_str());
    if (salvage)
        std::printf("%s: to repair it: %s\n", archive.c_str(), repair.c_str());
    return count_ == 0 ? ExitSuccess : ExitFaults;
}

// Headers

namespace {

struct NamedField {
    const char* name;
    HeaderField field;
};

// All but the checksum, which follows from the others.
constexpr NamedField CheckedFields[] = {
    {"name", HeaderFields::Name1},
    {"mode", HeaderFields::Mode},
    {"user", HeaderFields::Uid},
    {"group", HeaderFields::Gid},
    {"size", HeaderFields::Size},
    {"modification time", HeaderFields::Mtime},
    {"type", HeaderFields::TypeFlag},
    {"third piece of the name", HeaderFields::Name3},
    {"first fixed number", HeaderFields::Fixed1},
    {"second fixed number", HeaderFields::Fixed2},
    {"copy of the size", HeaderFields::SizeCopy},
    {"third fixed number", HeaderFields::Fixed3},
    {"fourth fixed number", HeaderFields::Fixed4},
    {"flag of a long name", HeaderFields::LongName},
    {"fifth piece of the name", HeaderFields::Name5},
    {"second piece of the name", HeaderFields::Name2},
    {"fourth piece of the name", HeaderFields::Name4},
};

// Whether a field differs. Copies the expected value into it, so that later comparisons do not see this difference.
bool ConsumeDifference(CtarBlock& block, const CtarBlock& expected, HeaderField field) {
    const auto from = expected.begin() + field.offset;
    const bool differs = !std::equal(from, from + field.width, block.begin() + field.offset);
    std::copy_n(from, field.width, block.begin() + field.offset);
    return differs;
}

} // namespace

void CheckHeader(Findings& findings, const Entry& entry, const CtarBlock& header) {
    const CtarBlock expected = EncodeEntry(entry);
    if (header == expected)
        return;
    CtarBlock rest = header;
    const bool checksum = ConsumeDifference(rest, expected, HeaderFields::Checksum);
    std::string fields;
    for (const NamedField& checked : CheckedFields)
        if (ConsumeDifference(rest, expected, checked.field))
            fields += std::string(fields.empty() ? "" : ", ") + checked.name;
    if (rest != expected)
        fields += std::string(fields.empty() ? "" : ", ") + "bytes outside the fields";
    else if (fields.empty() && checksum)
        fields = "form of the checksum";
    findings.Report(FindingKinds::Header, entry.offset, entry.name, "differs from what a backup writes: " + fields);
}

} // namespace ctar
