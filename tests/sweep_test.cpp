// Faults of the server and of the network, at every reply and every data connection of whole runs.

#include "sweep_support.h"

namespace {

using rehearsal::Exchange;
using rehearsal::Fault;
using Kind = Fault::Kind;

// Where a reply is cut apart: within the code, around every line end, in the middle.
std::set<std::size_t> AwkwardCuts(const std::string& reply) {
    std::set<std::size_t> cuts{1, 2, 3, 4, reply.size() / 2};
    for (std::size_t at = reply.find('\n'); at != reply.npos; at = reply.find('\n', at + 1))
        cuts.insert({at - 1, at, at + 1, at + 3, at + 5});
    cuts.erase(cuts.lower_bound(reply.size()), cuts.end());
    return cuts;
}

// A command as far as it is the same in every run: which worker's save file it names is chance.
std::string CommonPart(const std::string& command) {
    return command.starts_with("PASS") ? "PASS" : command.substr(0, command.find_first_of("0123456789"));
}

// One fault of one command of the undisturbed run, as a disturbance.
class Collector {
public:
    // Of workers in several sessions, another one may meet the fault than in the undisturbed run: what it sends and
    // receives may have other lengths.
    explicit Collector(bool same_each_run) : same_each_run_(same_each_run) {}

    std::vector<Disturbance> all;

    // The faults to come befall the `nth` command line that begins so.
    void Aim(const std::string& command, int nth) {
        fault_.command = command;
        fault_.nth = nth;
    }
    void AddReplyFaults(int reply, const std::string& text, bool transfers) {
        fault_.reply = reply;
        Add(Kind::Close, 0);
        // A line end that comes in two is not taken for one: the reply is then late or lost. Where it stands in the
        // reply to PASV depends on the port.
        const auto is_harmless = [&](std::size_t cut) {
            const std::size_t known = fault_.command == "PASV" || !same_each_run_ ? text.size() / 2 : text.size();
            return text[cut] != '\n' && cut < known;
        };
        Fault pieces = fault_;
        pieces.kind = Kind::Pieces;
        for (const std::size_t cut : AwkwardCuts(text)) {
            Add(Kind::Close, cut);
            pieces.cuts = {cut};
            pieces.pause_ms = 5;
            const bool harmless = is_harmless(cut);
            Put(pieces, "in pieces at " + std::to_string(cut), harmless ? 60000 : short_minute).harmless = harmless;
        }
        pieces.cuts.clear();
        for (std::size_t cut = 1; cut < text.size(); ++cut)
            if (is_harmless(cut))
                pieces.cuts.push_back(cut);
        pieces.pause_ms = 1;
        Put(pieces, "in single bytes", 60000).harmless = true;
        Add(Kind::Reset, 0);
        Add(Kind::Reset, text.size() / 2);
        Add(Kind::CloseAfter, 0);
        Fault silent = fault_;
        silent.kind = Kind::Silent;
        silent.pause_ms = transfers ? 0 : 5 * short_minute; // a command without data is awaited as long as it takes
        Put(silent, "silent", short_minute);
        for (const char* refusal : {"550 no", "550-first\r\n550 second", "421 closing down", "hello", "999"}) {
            Fault replace = fault_;
            replace.kind = Kind::Replace;
            replace.text = refusal;
            Put(replace, std::string("answers ") + refusal, short_minute);
        }
    }
    void AddDataFaults(std::size_t moved) {
        fault_.reply = 0;
        const std::set<std::size_t> places{0, 1, 511, 512, 513, 65535, 65536, moved / 2, moved - 1, moved};
        for (const std::size_t bytes : places) {
            if (bytes > moved)
                break;
            for (const Kind kind : {Kind::DataClose, Kind::DataReset, Kind::DataSilent})
                Add(kind, bytes).server_lies = kind == Kind::DataClose && (bytes < moved || !same_each_run_);
            Fault refusal = fault_;
            refusal.kind = Kind::Replace;
            refusal.reply = 1;
            refusal.text = "426 Data connection closed; transfer aborted.";
            Add(Kind::DataClose, bytes).faults.push_back(refusal);
        }
    }
    void Add(Kind kind) { Add(kind, 0); }

private:
    static constexpr int short_minute = 60; // milliseconds

    Disturbance& Add(Kind kind, std::size_t bytes) {
        static const std::map<Kind, const char*> names{
            {Kind::Close, "closed"},          {Kind::Reset, "reset"},           {Kind::CloseAfter, "closed behind"},
            {Kind::DataRefuse, "no data"},    {Kind::DataClose, "data closed"}, {Kind::DataReset, "data reset"},
            {Kind::DataSilent, "data silent"}};
        Fault fault = fault_;
        fault.kind = kind;
        fault.bytes = bytes;
        return Put(fault, std::string(names.at(kind)) + " at " + std::to_string(bytes), short_minute);
    }
    Disturbance& Put(const Fault& fault, const std::string& how, int minute) {
        Disturbance disturbance;
        disturbance.what =
            fault.command + " #" + std::to_string(fault.nth) + ", reply " + std::to_string(fault.reply) + ": " + how;
        disturbance.faults = {fault};
        disturbance.minute_ms = minute;
        return all.emplace_back(disturbance);
    }

    const bool same_each_run_;
    Fault fault_;
};

std::vector<Disturbance> AllFaults(const std::vector<Exchange>& exchanges, bool same_each_run) {
    Collector collector(same_each_run);
    for (std::size_t index = 0; index < exchanges.size(); ++index) {
        const Exchange& exchange = exchanges[index];
        const std::string command = CommonPart(exchange.command);
        int nth = 0; // a fault counts the lines that begin with its command
        for (std::size_t before = 0; before <= index; ++before)
            if (command.empty() ? exchanges[before].command.empty() : exchanges[before].command.starts_with(command))
                ++nth;
        collector.Aim(command, nth);
        const bool transfers = exchange.replies.size() > 1;
        for (std::size_t reply = 0; reply < exchange.replies.size(); ++reply)
            collector.AddReplyFaults(static_cast<int>(reply), exchange.replies[reply], transfers);
        if (exchange.command == "PASV")
            collector.Add(Kind::DataRefuse);
        if (transfers)
            collector.AddDataFaults(exchange.moved);
    }
    return collector.all;
}

using Shard = std::tuple<Mode, std::size_t>; // the part of PartCount: that many can run at the same time
constexpr std::size_t PartCount = 4;

class FaultSweep : public testing::TestWithParam<Shard> {};

TEST_P(FaultSweep, KeepsEveryPromise) {
    const auto& [mode, part] = GetParam();
    const Rehearsal rehearsal(mode, mode == Mode::Restore);
    const std::vector<Disturbance> all = AllFaults(rehearsal.Undisturbed().exchanges, mode != Mode::ThreadedBackup);
    std::vector<Disturbance> mine;
    for (std::size_t index = part; index < all.size(); index += PartCount)
        mine.push_back(all[index]);
    Sweep("faults", rehearsal, mine);
}

// All workers lose their connections in the same run: between their saves, in them, in the retrievals, each once
// without and once with a request to end.
TEST(Workers, RecoverTogether) {
    const Rehearsal rehearsal(Mode::ThreadedBackup);
    std::vector<Disturbance> all;
    for (const char* const place : {"RCMD CRTSAVF", "RCMD SAV", "PASV", "RETR"})
        for (const Kind kind : {Kind::Close, Kind::Reset})
            for (const int terminate_at : {-1, 35, 50, 65}) {
                Disturbance disturbance;
                disturbance.what = std::string("every worker at ") + place;
                disturbance.terminate_at = terminate_at;
                for (int nth = 1; nth <= 6; ++nth) {
                    Fault fault;
                    fault.kind = kind;
                    fault.command = place;
                    fault.nth = nth;
                    disturbance.faults.push_back(fault);
                }
                all.push_back(disturbance);
            }
    Sweep("together", rehearsal, all);
}

std::string ShardName(const testing::TestParamInfo<Shard>& shard) {
    return ModeName(std::get<0>(shard.param)) + "_" + std::to_string(std::get<1>(shard.param));
}

INSTANTIATE_TEST_SUITE_P(Runs, FaultSweep,
                         testing::Combine(testing::Values(Mode::List, Mode::Backup, Mode::ThreadedBackup,
                                                          Mode::Restore),
                                          testing::Range<std::size_t>(0, PartCount)),
                         ShardName);

} // namespace
