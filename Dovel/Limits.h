// Upper bounds on every size that a peer announces, checked before memory is set
// aside for it, and on the work a peer can make us do. Past a framing limit (a line, a
// map, a read, a batch, a bundle, a file part) the peer is disconnected; past the others
// the item is refused, skipped or evicted and the session goes on. Either way the
// process stays healthy. Each subsystem adds its limits here, each with its reason.
#pragma once

#include <cstdint>

namespace Dovel::Limits {

// Longest text line accepted from a peer, without its line end (ConnectionThread::line).
constexpr int MaxLineBytes = 1 << 20;
// Most entries in one map that a peer announces (ConnectionThread::readMap).
constexpr int MaxMapEntries = 1 << 16;
// Largest map block, its 8-byte length item included; a text map's keys and values are
// held to the same total (ConnectionThread::readMap). A folder's file list is sent in
// maps of half that (FolderServeConnection).
constexpr int MaxMapBlockBytes = 16 << 20;
// Largest single raw read that a handler's framing asks for (ConnectionThread::readData
// and skip): one bundle or one file part.
constexpr int MaxReadBytes = 128 << 20;

// Connections whose login is under way at once on one server; each holds a thread
// while it waits for the peer. A new one beyond it closes the oldest of the address
// with the most (Admission), so that connections that never log in cost a bounded
// number of threads and cannot lock real clients out.
constexpr int MaxPendingLogins = 64;
// Peer addresses a server keeps counts and failed logins for; beyond it those without
// a connection are forgotten (Admission).
constexpr int MaxTrackedPeerAddresses = 4096;

// Largest bundle payload a peer may announce in a bundle header; a larger one
// disconnects before anything is set aside for it (processDovel2).
constexpr int MaxBundlePayloadBytes = 64 << 20;
// Payload size at which a sender ends a bundle and goes on in a new one of the same
// kind (NodeChangeSender): a pass as large as the first copy of a big tree is then not
// refused for its size (a single value past MaxBundlePayloadBytes still is), and arrives
// in pieces that the peer's tree thread applies while the rest is still being read.
// Kept under 1 MiB, where a growing byte array's next step would double its block.
// Not a limit on what we accept.
constexpr int SentBundleBytes = (1 << 20) - (64 << 10);
static_assert(SentBundleBytes < MaxBundlePayloadBytes, "a sent bundle must be one we accept");
// Largest encoded value or event payload that a sender writes into a bundle; a larger
// one is not sent (logged), since the peer would refuse its bundle and end the session,
// and the next session the same way. With the rest of a bundle cut at SentBundleBytes,
// every bundle we send stays within MaxBundlePayloadBytes (NodeChangeSender).
constexpr int MaxSentValueBytes = MaxBundlePayloadBytes - SentBundleBytes - 64;
// Most bundles a peer may announce in one "dovel2 N" line; a larger count disconnects,
// since the batch's vector is sized by it (processDovel2). Our own sender cuts a longer
// pass into consecutive batches (Dovel1Connection::send).
constexpr int MaxBundlesPerBatch = 1 << 16;
// Bytes of received batches that may wait for the tree thread; beyond it the connection
// reads nothing more until the tree thread has applied some, so that a peer sending
// faster than the tree applies is slowed by TCP instead of filling our memory. A batch
// of more than a megabyte is handed over in pieces as it arrives (processDovel2).
constexpr int64_t MaxUnappliedBatchBytes = int64_t(64) << 20;
// Most bytes of outgoing batches that may wait in one connection's writer; beyond it the
// peer is taken not to read and is disconnected (Dovel1Connection::send). Well above the
// first batch of a large tree, which a reading peer takes at once.
constexpr int64_t MaxUnsentBatchBytes = int64_t(256) << 20;
// Bytes of answers to pings that may wait for a writer busy with an item (a peer that
// does not read keeps it there); beyond it the reading thread waits for the writer and
// writes the answers itself, so that a peer pinging without reading is slowed by TCP
// instead of filling our memory (ConnectionThread::answerPing).
constexpr int MaxWaitingPongBytes = 64 << 10;
// Bytes of batches that may wait in a connection's writer before a session holds its
// output passes back, folding later changes into one newest value per attribute until
// the peer has read down to it (BundleController::Core::flush). Keeps a slow reader's
// backlog, and how stale its values are, bounded by the tree instead of by time.
constexpr int64_t BackPressureBytes = int64_t(4) << 20;
// Bytes of one-way events raised while output is held back beyond which the session
// sends anyway (events cannot be folded like values); the writer's ceiling above then
// still applies (NodeChangeSender::eventsPiledUp).
constexpr int64_t MaxHeldEventBytes = int64_t(64) << 20;

// Most unknown message types a session remembers (and reports) for the peer's bundles;
// bundles of further unknown types are dropped without either, so that a peer naming
// ever new types cannot grow the table (BundleDispatcher::dispatchBundle).
constexpr int MaxUnknownBundleTypes = 1024;
// Most symbol definitions a peer may make in one session's receive-side registry
// (SymbolRegistryReceiver::handleBundle): one per attribute or event name the peer
// announces, each 25-65 bytes of table beside its name, so at most about 1 GB of table,
// and never more than about 8 bytes of table per byte of definitions received. Room for
// a tree of ten million attributes and their nodes, which as a tree takes several times
// that. Rebinding a known name or symbol counts too: each may make the receiver create
// another attribute (NewAttributeReceiver).
constexpr int MaxPeerSymbols = 1 << 24;
// What the nodes and attributes created for a peer's announcements may cost this side,
// per byte of bundles the peer has sent, beyond a floor that any small tree fits in
// (PeerFootprint). A flat tree costs a few bytes per byte sent; a peer that sends deep,
// ever new paths would otherwise make us hold hundreds.
constexpr int64_t MaxHeldBytesPerPeerByte = 16;
constexpr int64_t PeerFootprintFloorBytes = int64_t(16) << 20;
// Longest name a peer may define for a symbol; a longer one is left undefined
// (SymbolRegistryReceiver::handleBundle). Paths of a tree stay far below it.
constexpr int MaxPeerNameBytes = 4096;
// Most components of a path the receiver creates nodes for; a deeper one is not
// created (NewAttributeReceiver). Every node keeps its whole path, so a path of N
// components costs about N * N / 2 bytes of paths, and the tree's own walks recurse
// once per level.
constexpr int MaxPeerPathDepth = 128;

// Largest answer a tree server writes to one query of a light client ("Dovel.Query");
// a read or list that would be larger is answered Query::TooLarge, and the client takes
// a full copy instead. Half a bundle, so that an answer is always one we accept.
constexpr int MaxQueryReplyBytes = MaxBundlePayloadBytes / 2;
// Most paths or entries one query may carry: each costs the server a walk.
constexpr int MaxQueryItems = 1 << 16;
// Attributes a light client's reads, lists and removals may make the tree thread visit:
// at most a burst of this many, refilled at the rate below (a query beyond them is
// answered Query::TooLarge). A list of a million-attribute tree fits the burst; a client
// asking again and again cannot keep the tree thread, which serves every session, busy.
constexpr int64_t QueryVisitBurst = int64_t(1) << 22;
constexpr int64_t QueryVisitsPerSecond = int64_t(1) << 21;
// Steps of matching a list's pattern (a path byte against a live state of the pattern)
// that cost as much as a visit: a list pays its matching from the same allowance, so
// that a long pattern against long paths is answered Query::TooLarge instead of taking
// the tree thread for minutes. A step takes a few nanoseconds, a visit some hundreds.
constexpr int64_t QueryMatchStepsPerVisit = 64;

// Largest whole event that a peer may announce in "event-slice-begin"; its slices are
// joined into one buffer of that size once all have come (RemoteNode::handleRemoteEvent).
constexpr int MaxSlicedEventBytes = 64 << 20;
// Most sliced events of all senders being reassembled at once; beyond it the oldest
// unfinished one is evicted, so abandoned ones cannot pile up (RemoteNode::handleRemoteEvent).
constexpr int MaxSliceReassemblies = 64;
// Most bytes held by all sliced events being reassembled at once, each charged its size
// plus SliceBookkeepingBytes per slice; the oldest are evicted to make room, and an
// event that alone exceeds it is refused (RemoteNode::handleRemoteEvent).
constexpr int MaxSliceReassemblyBytes = 128 << 20;
// What one kept slice costs beyond its bytes, charged so that tiny slices cannot hold
// far more memory than the budget says (RemoteNode::handleRemoteEvent).
constexpr int SliceBookkeepingBytes = 64;

// Largest "filepart" a peer may announce; the part is read into memory whole
// (FileTransferHandler::receiveFilePart). Our own parts are 65536 bytes.
constexpr int MaxFilePartBytes = 1 << 20;
// Longest file name, in UTF-8 bytes, accepted in a file command or a file list; keeps
// paths within what file systems take (PathPolicy::isCarriableName, FileTransferHandler).
constexpr int MaxFileNameBytes = 4096;
// Files one connection downloads at once: each holds its temporary file open (and one
// of the hash's readers). Further descriptions wait, and their parts are asked for as
// downloads end (FileTransferHandler::receiveFileInfo); a part that was not asked for
// fails its download.
constexpr int MaxDownloadsPerConnection = 64;
// Bytes of the download list of one folder, each entry charged DownloadEntryBytes
// beside its name's UTF-8 bytes (DownloadLedger::add).
constexpr int64_t MaxDownloadListBytes = int64_t(64) << 20;
constexpr int64_t DownloadEntryBytes = 256;
// Bytes of one connection's upload queue, each entry charged UploadEntryBytes beside
// the UTF-8 bytes of its name and path (FileTransferHandler::startFilePartsUploadTask).
constexpr int64_t MaxUploadQueueBytes = int64_t(64) << 20;
constexpr int64_t UploadEntryBytes = 64;
// Bytes that may wait in a folder server's connection when its peer sends another
// line; beyond it the peer is taken not to read and is disconnected, so that requests
// whose answers it never reads cannot fill our memory (FolderServeConnection::parse).
// Far above what uploads let wait (32 MiB) and a large folder's list.
constexpr int64_t MaxUnreadReplyBytes = int64_t(256) << 20;
// What one waiting writer item costs beyond its bytes (its record, list and array
// headers, as the allocator rounds them), counted against MaxUnreadReplyBytes: a
// flood of nine-byte answers would otherwise hold twelve times the ceiling.
constexpr int64_t WaitingItemBytes = 128;
// Most entries a serving peer may announce in its whole file list, over all its
// "filelist" maps, and most bytes they may take, each charged FileListEntryBytes beside
// its name's UTF-8 bytes (FolderPullHandler::receiveList).
constexpr int MaxFileListEntries = 1 << 20;
constexpr int64_t MaxFileListBytes = int64_t(512) << 20;
constexpr int64_t FileListEntryBytes = 128;

} // namespace Dovel::Limits
