// The module names that sessions bind to message-type numbers with "load-module".
// Only the handshake module has a fixed number (0).
#pragma once

namespace Dovel {
namespace ModuleNames {

constexpr const char Handshake[] = "Quillon.Dovel.Handshake";
constexpr const char SymbolRegistry[] = "Quillon.Dovel.SymbolRegistry";
constexpr const char AttributeNew[] = "Quillon.Dovel.AttributeNew";
constexpr const char AttributeUpdate[] = "Quillon.Dovel.AttributeUpdate";
constexpr const char AttributeRemove[] = "Quillon.Dovel.AttributeRemove";
constexpr const char OneWayEvent[] = "Quillon.Dovel.OneWayEvent";
// Dovel's own: a light client's questions to a tree server and their answers
// (Dovel/sync/QueryWire.h).
constexpr const char Query[] = "Dovel.Query";
constexpr const char QueryReply[] = "Dovel.QueryReply";

} // namespace ModuleNames
} // namespace Dovel
