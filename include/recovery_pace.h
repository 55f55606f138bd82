// When a broken session may be recovered again, so that a server which drops the session at the same command every time
// cannot keep an operation busy forever. Silent; one pace belongs to one operation.
//
// The first twenty recoveries follow each other at once. From then on each is preceded by a pause of 1, 2, 4 ... 60
// seconds. No recovery is allowed once the timeout has passed since the first one.

#pragma once

struct RecoveryPace {
    int recoveries = 0; // allowed so far
    double first = 0;   // SecondsNow() at the first of them
};

// Pauses as long as the pace asks for. Returns false when there is to be no further recovery: `timeout` minutes have
// passed since the first one, or termination was requested, before or during the pause.
bool AwaitRecovery(RecoveryPace& pace, int timeout);
