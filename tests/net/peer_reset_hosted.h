// peer_reset_hosted.h: a peer that breaks its connection instead of closing it: it leaves answers unread, for which the
// system resets the connection.
#pragma once
#include "platform/hosted/control.h"
#include "tests/net/net_fixture.h"

// From here on a Close of the peer is a reset. Drops faults and counts.
inline void MakeCloseAReset(Peer &peer)
{
    hosted::ClearFaults();
    peer.Send(Field("KeepAlive") + Field("KeepAlive"));
    EXPECT_TRUE(
        Eventually([] { return hosted::CallCount("send") >= 3; })); // at the second answer the first has arrived
}
