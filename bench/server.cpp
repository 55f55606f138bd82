// The rehearsal server as the benchmarks need it. Usage: bench-server ROOT ADDRESS [raw:PATH | locked:PATH |
// tls:NAME]...
//
// The save file of a raw object is just that object's bytes, so that every client fetches and sends the same file. A
// locked directory is listed, but a save of it ends at once, so that the time of a run is that of its listing. A
// restore command is answered and not run, so that the time of a restore is that of its upload. With tls: the server
// demands TLS, with NAME.pem and NAME.key.

#include <cstdio>
#include <span>
#include <string>

#include <unistd.h>

#include "rehearsal.h"

int main(int argc, char** argv) {
    if (argc < 3)
        return 2;
    rehearsal::Options options;
    options.root = argv[1];
    options.address = argv[2];
    options.port = 21;
    options.record = false;
    for (const std::string word : std::span(argv, static_cast<std::size_t>(argc)).subspan(3)) {
        const std::size_t colon = word.find(':');
        const std::string value = word.substr(colon + 1);
        if (word.starts_with("tls"))
            options.tls = {.certificate = value + ".pem", .key = value + ".key"};
        else
            (word.starts_with("raw") ? options.raw : options.locked).insert(value);
    }
    rehearsal::Fault no_restore;
    no_restore.kind = rehearsal::Fault::Kind::Replace;
    no_restore.command = "RCMD RST";
    no_restore.nth = 0;
    no_restore.text = "250 1 objects restored.";
    options.faults = {no_restore};
    const rehearsal::Server server(options);
    std::puts("listening");
    std::fflush(stdout);
    ::pause(); // until a signal ends it
}
