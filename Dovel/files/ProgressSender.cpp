#include "Dovel/files/ProgressSender.h"

namespace Dovel {

ProgressSender::~ProgressSender() = default;

void ProgressSender::transferInfo(const QString&) {}

} // namespace Dovel
