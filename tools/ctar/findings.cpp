#include "findings.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include <nlohmann/json.hpp>

#include "commands.h"
#include "messages.h"

namespace {

using nlohmann::ordered_json;

double Percent(std::int64_t part, std::int64_t whole) {
    return whole > 0 ? 100.0 * static_cast<double>(part) / static_cast<double>(whole) : 100.0;
}

} // namespace

void Findings::Report(const FindingKind& kind, std::int64_t offset, const std::string& name, const std::string& text) {
    ++count_;
    mends_ = mends_ || kind.mends;
    progress_.Clear();
    const std::string archive = Escape(path_);
    if (json_) {
        const ordered_json line{
            {"archive", archive}, {"offset", offset}, {"finding", kind.code}, {"name", Escape(name)}, {"text", text}};
        std::printf("%s\n", line.dump().c_str());
        return;
    }
    std::printf("%s: %s: %s: %s%s%s\n", archive.c_str(), OffsetText(offset).c_str(), kind.code, Escape(name).c_str(),
                name.empty() ? "" : ": ", text.c_str());
}

int Findings::Finish(std::int64_t entries, const Compared& compared, Cure cure) {
    progress_.Clear();
    const std::string archive = Escape(path_);
    const std::string word = ShellWord((path_.starts_with('-') ? "./" : "") + path_); // no option
    const bool salvage = mends_ && cure == Cure::Salvage;
    const std::string mend = !salvage ? "" : "ctar salvage " + (path_ == "-" ? "ARCHIVE" : word) + " -o NEW";
    if (json_) {
        ordered_json line{{"archive", archive}, {"entries", entries}, {"findings", count_}, {"mend", mend}};
        if (compared.active)
            line.update({{"compared_entries", compared.entries},
                         {"compared_bytes", compared.bytes},
                         {"sums_entries", compared.all_entries},
                         {"sums_bytes", compared.all_bytes}});
        std::printf("%s\n", line.dump().c_str());
        return count_ == 0 ? AllWell : NotSound;
    }
    if (compared.active)
        std::printf("%s: compared the data of %lld of %s (%.1f %%), %lld of %lld bytes (%.1f %%)\n", archive.c_str(),
                    static_cast<long long>(compared.entries), Counted(compared.all_entries, "entry", "entries").c_str(),
                    Percent(compared.entries, compared.all_entries), static_cast<long long>(compared.bytes),
                    static_cast<long long>(compared.all_bytes), Percent(compared.bytes, compared.all_bytes));
    const bool blind = compared.active && compared.entries == 0 && compared.all_entries > 0;
    std::printf("%s: %s, %s\n", archive.c_str(), Counted(entries, "entry", "entries").c_str(),
                count_ > 0 ? Counted(count_, "finding", "findings").c_str()
                : blind    ? "headers sound, no entry's data compared"
                           : "sound");
    if (cure == Cure::Nothing)
        std::printf("%s: not one block of it is a header or a sentinel: it is no archive, or shifted\n",
                    archive.c_str());
    if (salvage)
        std::printf("%s: to mend it: %s\n", archive.c_str(), mend.c_str());
    return count_ == 0 ? AllWell : NotSound;
}

// Headers

namespace {

struct NamedField {
    const char* name;
    HeaderField field;
};

// All but the size, which makes the header what it is, and the checksum, which follows from the others.
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
    {"mark of a long name", HeaderFields::LongName},
    {"fifth piece of the name", HeaderFields::Name5},
    {"second piece of the name", HeaderFields::Name2},
    {"fourth piece of the name", HeaderFields::Name4},
};

// Whether a field differs; it is then made equal, so that what differs in the end stands in no field.
bool TakeDifference(CtarBlock& block, const CtarBlock& expected, HeaderField field) {
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
    const bool checksum = TakeDifference(rest, expected, HeaderFields::Checksum);
    std::string fields;
    for (const NamedField& checked : CheckedFields)
        if (TakeDifference(rest, expected, checked.field))
            fields += std::string(fields.empty() ? "" : ", ") + checked.name;
    if (rest != expected)
        fields += std::string(fields.empty() ? "" : ", ") + "bytes outside the fields";
    else if (fields.empty() && checksum)
        fields = "form of the checksum";
    findings.Report(FindingKinds::Header, entry.offset, entry.name, "not as a backup writes it: " + fields);
}
