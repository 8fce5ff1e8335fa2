// Upper bounds on every size that a peer announces, checked before memory is set
// aside for it. A peer that exceeds one is disconnected; the process stays healthy.
// Each subsystem adds the limits of its own framing here.
#pragma once

namespace Dovel::Limits {

// Longest text line accepted from a peer, without its line end (ConnectionThread::line).
constexpr int MaxLineBytes = 1 << 20;
// Most entries in one map that a peer announces (ConnectionThread::readMap).
constexpr int MaxMapEntries = 1 << 16;
// Largest binary map block, its 8-byte length item included (ConnectionThread::readMap).
constexpr int MaxMapBlockBytes = 16 << 20;
// Largest single raw read that a subclass's framing asks for (ConnectionThread::readData
// and skip): one bundle or one file part.
constexpr int MaxReadBytes = 128 << 20;

// Largest whole event that a peer may announce in "event-slice-begin"; the
// reassembly buffer is allocated at this size (RemoteNode::handleRemoteEvent).
constexpr int MaxSlicedEventBytes = 64 << 20;
// Most sliced events of all senders being reassembled at once, so unfinished ones
// cannot pile up (RemoteNode::handleRemoteEvent).
constexpr int MaxSliceReassemblies = 64;
// Most bytes held by all sliced events being reassembled at once
// (RemoteNode::handleRemoteEvent).
constexpr int MaxSliceReassemblyBytes = 128 << 20;

} // namespace Dovel::Limits
