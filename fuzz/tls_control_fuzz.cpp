// What a server and a client may say on a control connection, in pieces: how the relay reads their lines, and that no
// answer to PASV but its own reaches the client.
#include "control_filter.h"
#include "fuzz_support.h"
#include "passive_reply.h"
#include "text.h"

void Run(FuzzedDataProvider& input) {
    std::string all, joined;
    tls::LineBuffer lines;
    tls::ReplyTracker tracker;
    tls::ReplyTracker::Line last{true, 0};
    for (const std::string& piece : TakePieces(input, 600, all)) {
        lines.Append(piece);
        while (const auto line = lines.Next()) {
            assert(line->ends_with('\n') && line->find('\n') == line->size() - 1);
            joined += *line;
            const tls::ReplyTracker::Line tracked = tracker.Track(*line);
            assert(tracked.kind == (last.ends_reply ? line->front() : last.kind));
            last = tracked;
            PassiveAddress client;
            if (ParsePassiveReply(line->c_str(), client).empty())
                assert(tls::IsPassiveReply(*line));
            if (const auto port = tls::ParsePassivePort(*line)) {
                const std::string own = tls::FormatPassiveReply(0x7F000005, *port);
                assert(ParsePassiveReply(own.c_str(), client).empty() && ntohs(client.address.sin_port) == *port);
                assert(client.address.sin_addr.s_addr == htonl(0x7F000005));
            }
            const tls::CommandKind kind = tls::ClassifyCommand(*line);
            std::string_view verb = *line;
            verb = verb.substr(0, verb.find_first_of(" \r\n"));
            if (EqualsIgnoringCase(verb, "PORT") || EqualsIgnoringCase(verb, "CCC") || EqualsIgnoringCase(verb, "REIN"))
                assert(kind == tls::CommandKind::Refused || kind == tls::CommandKind::Malformed);
            const std::string logged = tls::LoggedCommand(*line);
            assert(MaskControls(logged) == logged);
            assert(!StartsWithIgnoringCase(*line, "PASS ") || logged == "PASS ****");
        }
        assert(!lines.HasLine());
    }
    assert(all.starts_with(joined) && all.size() == joined.size() + lines.Size());
}
