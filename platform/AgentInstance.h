// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <functional>

// One agent per user session. The first agent claims the session's agent name; a later one
// finds it taken and asks the first to show its preferences window instead of running beside
// it. AgentInstance::session() picks the mechanism of this system: on Linux the well-known name
// org.ferrybox.Agent on the D-Bus session bus, which the bus gives up when its owner ends,
// however it ends, so a crashed agent never blocks a start.
class AgentInstance {
public:
    enum Claim {
        Claimed,           // this is the session's agent
        RunningElsewhere,  // another agent holds the name
        Unavailable,       // no session bus: nothing to claim, the agent runs anyway
    };

    virtual ~AgentInstance() = default;
    static AgentInstance& session();

    // Claims the name. From then on a later agent's request runs the handler of
    // setShowPreferences(), once there is one.
    virtual Claim claim() = 0;
    virtual void setShowPreferences(std::function<void()> handler) = 0;
    // Asks the agent that holds the name to show its preferences window; false when no agent
    // answered.
    virtual bool showRunningAgent() = 0;
};
