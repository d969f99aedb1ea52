// The tests' names for the local collector's HTTPS server, which they script per path.
#pragma once

#include "tools/collector/https_server.hpp"

namespace pelora::test {

using collector::Headers;
using collector::RecordedRequest;
using collector::ScriptedResponse;
using TestCertificates = collector::Certificates;
using TestHttpsServer = collector::HttpsServer;

}  // namespace pelora::test
