#include "Dovel/bundle/BundleSender.h"

namespace Dovel {

BundleSender::~BundleSender() = default;

void BundleSender::prepareUpdates() {}

void BundleSender::initialize(BundleDispatcher&) {}

} // namespace Dovel
