// The Pelora client library: everything a host needs.
#pragma once

#include "pelora/client/configuration.hpp"
#include "pelora/core/coding.hpp"
#include "pelora/core/decimal.hpp"
#include "pelora/core/dictionary.hpp"
#include "pelora/core/events.hpp"
#include "pelora/core/json.hpp"
#include "pelora/core/key_path.hpp"
#include "pelora/core/service_hosts.hpp"
#include "pelora/delivery/concurrency.hpp"
#include "pelora/delivery/http_client.hpp"
#include "pelora/delivery/settings.hpp"
#include "pelora/delivery/storage.hpp"
#include "pelora/log/log.hpp"
#include "pelora/platform/dispatch.hpp"
#include "pelora/platform/paths.hpp"
#include "pelora/state/store.hpp"
