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

// Whether a connection lost in this command is taken up anew: what comes before the bytes of an object.
bool IsSetUp(const std::string& command) {
    const auto starts = {"STRU", "MODE", "TYPE", "SITE", "RCMD CLRSAVF", "RCMD CRTSAVF", "RCMD SAV"};
    return std::ranges::any_of(starts, [&](const char* start) { return command.starts_with(start); });
}

// One fault of one command of the undisturbed run, as a disturbance.
class Collector {
public:
    // Of workers in several sessions, another one may meet the fault than in the undisturbed run: what it sends and
    // receives may have other lengths.
    explicit Collector(bool same_each_run) : same_each_run_(same_each_run) {}

    std::vector<Disturbance> all;

    // The faults to come befall the `nth` command line that begins so. `of_worker`: it is not of the first session.
    void Aim(const std::string& command, int nth, bool of_worker) {
        fault_.command = command;
        fault_.nth = nth;
        costs_one_ = of_worker && (IsSetUp(command) || command == "PASV" || command.starts_with("RETR"));
    }
    void AddReplyFaults(int reply, const std::string& text, bool transfers) {
        fault_.reply = reply;
        AddLoss(Kind::Close, text, 0);
        // A line end that comes in two is not taken for one: the reply is then late or lost. Where it stands in the
        // reply to PASV depends on the port, and another worker's reply may be a short one.
        const std::size_t known = !same_each_run_            ? ShortestReply
                                  : fault_.command == "PASV" ? text.size() / 2
                                                             : text.size();
        const auto is_harmless = [&](std::size_t cut) { return text[cut] != '\n' && cut < known; };
        Fault pieces = Make(Kind::Pieces);
        for (const std::size_t cut : AwkwardCuts(text)) {
            AddLoss(Kind::Close, text, cut);
            pieces.cuts = {cut};
            pieces.pause_ms = 5;
            const bool harmless = is_harmless(cut);
            Put(pieces, "in pieces at " + std::to_string(cut), harmless ? 60000 : short_minute).cost =
                harmless ? Cost::NotAWord : Cost::Any;
        }
        pieces.cuts.clear();
        for (std::size_t cut = 1; cut < text.size(); ++cut)
            if (is_harmless(cut))
                pieces.cuts.push_back(cut);
        pieces.pause_ms = 1;
        Put(pieces, "in single bytes", 60000).cost = Cost::NotAWord;
        AddLoss(Kind::Reset, text, 0);
        AddLoss(Kind::Reset, text, text.size() / 2);
        Add(Kind::CloseAfter);
        Fault silent = Make(Kind::Silent);
        silent.pause_ms = transfers ? 0 : 5 * short_minute; // a command without data is awaited as long as it takes
        Put(silent, "silent", short_minute);
        for (const char* refusal : {"550 no", "550-first\r\n550 second", "421 closing down", "hello", "999"}) {
            Fault replace = Make(Kind::Replace);
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
            // TLS shows every cut, even where the server calls the transfer complete.
            for (const Kind kind : {Kind::DataClose, Kind::DataReset, Kind::DataSilent})
                Add(kind, bytes).server_lies =
                    kind == Kind::DataClose && (bytes < moved || !same_each_run_) && !TheRoute().tls;
            if (TheRoute().tls)
                Add(Kind::DataCutRecord, bytes);
            Fault refusal = Make(Kind::Replace);
            refusal.reply = 1;
            refusal.text = "426 Data connection closed; transfer aborted.";
            Add(Kind::DataClose, bytes).faults.push_back(refusal);
        }
        if (TheRoute().tls)
            for (const Kind kind : {Kind::DataNoNotify, Kind::DataNoResume})
                Add(kind);
    }
    Disturbance& Add(Kind kind, std::size_t bytes = 0) {
        // By the number of the kind.
        static const char* const names[] = {
            "replaced", "in pieces",   "closed",     "reset",       "closed behind",   "silent",    "flood",
            "no data",  "data closed", "data reset", "data silent", "cut in a record", "no notify", "not resumed"};
        Fault fault = Make(kind);
        fault.bytes = bytes;
        const bool waits = kind == Kind::DataSilent;
        const std::string how = names[static_cast<int>(kind)] + (" at " + std::to_string(bytes));
        Disturbance& added = Put(fault, how, waits ? short_minute : 60000);
        if (costs_one_ && !waits)
            added.cost = Cost::OneObject;
        return added;
    }

private:
    static constexpr int short_minute = 60;         // milliseconds
    static constexpr std::size_t ShortestReply = 8; // bytes; every reply has more before its line end

    Fault Make(Kind kind) const {
        Fault fault = fault_;
        fault.kind = kind;
        return fault;
    }
    // The control connection ends after that many bytes of the reply.
    void AddLoss(Kind kind, const std::string& text, std::size_t bytes) {
        Disturbance& loss = Add(kind, bytes);
        const std::size_t line = same_each_run_ ? text.find('\n') : ShortestReply;
        if (IsSetUp(fault_.command) && bytes <= line) // no whole line came
            loss.cost = Cost::Nothing;
    }
    Disturbance& Put(const Fault& fault, const std::string& how, int minute) {
        const std::string reply = " #" + std::to_string(fault.nth) + ", reply " + std::to_string(fault.reply) + ": ";
        return all.emplace_back(
            Disturbance{.what = fault.command + reply + how, .faults = {fault}, .minute_ms = minute});
    }

    const bool same_each_run_;
    Fault fault_;
    bool costs_one_ = false;
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
        collector.Aim(command, nth, exchange.session > 0);
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

// The three workers that run at the same time lose their connections at the same point, each once without and once with
// a request to end.
TEST(Workers, RecoverTogether) {
    const Rehearsal rehearsal(Mode::ThreadedBackup);
    int commands = -1, connections = 0; // before the three: of the listing, without QUIT, and of the worker alone
    for (const Exchange& exchange : rehearsal.Undisturbed().exchanges)
        if (exchange.session <= 1) {
            commands += exchange.command.empty() ? 0 : 1;
            connections += exchange.command == "PASV" ? 1 : 0;
        }
    struct Place {
        std::vector<std::string> commands; // one of each worker
        int nth;
        Cost cost;
    };
    const std::string clear = "RCMD CLRSAVF FILE(QTEMP/SAV", retrieve = "RETR /QSYS.LIB/QTEMP.LIB/SAV";
    std::vector<Disturbance> all;
    for (const Place& place : {Place{{clear + "2", clear + "3", clear + "4"}, 1, Cost::Nothing},
                               Place{{"RCMD SAVDLO", "RCMD SAVLIB", "RCMD SAV DEV"}, 1, Cost::Nothing},
                               Place{{"PASV", "PASV", "PASV"}, connections + 1, Cost::Any},
                               Place{{retrieve + "2", retrieve + "3", retrieve + "4"}, 1, Cost::Any}})
        for (const Kind kind : {Kind::Close, Kind::Reset})
            for (const int terminate_at : {-1, commands + 5, commands + 20, commands + 30}) {
                Disturbance disturbance{.what = "every worker at " + place.commands[0], .terminate_at = terminate_at};
                disturbance.cost = terminate_at < 0 ? place.cost : Cost::Any;
                for (int worker = 0; const std::string& command : place.commands)
                    disturbance.faults.push_back(OfKind(kind, command, place.nth + (place.nth > 1 ? worker++ : 0)));
                all.push_back(disturbance);
            }
    Sweep("together", rehearsal, all, [](const Finished& run, const Disturbance& disturbance) {
        const std::size_t recoveries = Count(run.outcome.err, "recovering checkpoint");
        EXPECT_TRUE(recoveries == disturbance.faults.size() || disturbance.terminate_at >= 0)
            << disturbance.what << run.outcome.err;
    });
}

// The server drops the session each time it receives one of the commands: the recovery has an end, the object fails and
// the rest is saved. A request to end leaves the next objects alone.
TEST_P(FaultSweep, GivesUpOnACommandThatIsNeverAnswered) {
    const auto& [mode, part] = GetParam();
    const Rehearsal rehearsal(mode);
    std::vector<Disturbance> all;
    std::set<std::string> commands;
    int index = -1; // of the command
    for (const Exchange& exchange : rehearsal.Undisturbed().exchanges) {
        index += exchange.command.empty() ? 0 : 1;
        if (!commands.insert(CommonPart(exchange.command)).second || commands.size() % PartCount != part)
            continue;
        for (const int terminate_at : {-1, index + 60})
            all.push_back({.what = "dropped each time: " + exchange.command,
                           .faults = {Close(CommonPart(exchange.command), 0)},
                           .minute_ms = 60,
                           .terminate_at = exchange.session > 0 ? terminate_at : -1});
    }
    Sweep("dropped", rehearsal, all, [&](const Finished& run, const Disturbance& disturbance) {
        // A directory that cannot be listed is saved with the one above it; a later entry hides that one was not
        // restored.
        const std::string& command = disturbance.faults[0].command;
        const bool harmless = command == "QUIT" || rehearsal.mode == Mode::Restore ||
                              (rehearsal.mode != Mode::List && command.starts_with("LIST"));
        EXPECT_TRUE(run.outcome.status != 0 || harmless) << disturbance.what;
        if (run.outcome.status != 143)
            return;
        std::set<std::string> saves;
        for (std::size_t after = static_cast<std::size_t>(run.signalled); after < run.exchanges.size(); ++after)
            if (run.exchanges[after].command.starts_with("RCMD SAV"))
                saves.insert(run.exchanges[after].command);
        const std::size_t workers = rehearsal.mode == Mode::ThreadedBackup ? 3 : 1;
        EXPECT_LE(saves.size(), workers) << disturbance.what << run.outcome.err;
    });
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
