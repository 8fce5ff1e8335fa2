// Builds against the installed headers and libraries only: a shared tree with one
// attribute, and the library's version.
#include "Dovel/Version.h"
#include "Dovel/sync/RemoteNode.h"

#include "Tessel/AttributeT.h"
#include "Tessel/Node.h"

#include <cstdio>

int main() {
    Tessel::Node host;
    auto* shared = new Dovel::RemoteNode(&host, "shared"); // the host node owns it
    if (!shared->addDeepAttribute("scene/x", new Tessel::AttributeT<float>()))
        return 1;
    std::printf("Dovel %s shares %s\n", Dovel::version().constData(), "scene/x");
    return 0;
}
