#include "Dovel/bundle/BundleReceiver.h"

namespace Dovel {

BundleReceiver::~BundleReceiver() = default;

void BundleReceiver::moduleLoaded(const QMap<QString, QString>&) {}

} // namespace Dovel
