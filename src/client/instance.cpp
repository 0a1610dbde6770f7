// The process-wide client instance: double-checked creation under the ACE
// static-object lock, init(), finish() and the back-end factory.
#include "vel/instance.h"

#include <atomic>
#include <new>
#include <vector>

#include "base/static_lock.h"
#include "client/instance_internal.h"
#include "vel/client_local.h"
#include "vel/client_tavora.h"
#include "vel/log.h"

namespace VEL {

namespace {

std::atomic<VELClient*> g_instance{nullptr};

// Back-ends retired by finish() are never destroyed (other threads may
// still hold them); they stay reachable here for the life of the process.
void keepRetired(VELClient* client) {
  static std::vector<VELClient*>* retired = new std::vector<VELClient*>();
  try {
    retired->push_back(client);
  } catch (...) {
    // Losing track of a retired back-end only matters to leak checkers.
  }
}

}  // namespace

VELClient* createClient(VELClientConfig* config) {
  if (config == nullptr) {
    return nullptr;
  }
  if (config->clientType == "Local") {
    return new (std::nothrow) VELClientLocal();
  }
  if (config->clientType == "Tavora") {
    return new (std::nothrow) VELClientTavora();
  }
  return nullptr;
}

VELClient* getInstance(const ConfigParams* params, bool* created) {
  VELClient* client = g_instance.load(std::memory_order_acquire);
  if (client != nullptr) {
    if (created != nullptr) {
      *created = false;
    }
    return client;
  }

  {
    StaticObjectGuard guard;
    if (!guard.locked()) {
      return nullptr;
    }
    client = g_instance.load(std::memory_order_acquire);
    if (client != nullptr) {
      if (created != nullptr) {
        *created = false;
      }
      return client;
    }

    VELClientConfig* config = new (std::nothrow) VELClientConfig();
    if (config == nullptr) {
      if (created != nullptr) {
        *created = false;
      }
      return nullptr;
    }
    config->loadConfig(params);
    getLogger()->log(kLogError, "[VEL] VELClientConfig::loadConfig(), current config:%s",
                     config->toString().c_str());

    client = createClient(config);
    if (client == nullptr) {
      delete config;
      if (created != nullptr) {
        *created = false;
      }
      return g_instance.load(std::memory_order_acquire);
    }
    client->attachConfig(config);
    client->start();
    g_instance.store(client, std::memory_order_release);
  }

  // Outside the lock: other threads may already use the instance.
  client->createRoot();
  if (created != nullptr) {
    *created = true;
  }
  return client;
}

int init(const ConfigParams& params) {
  bool created = false;
  VELClient* client = getInstance(&params, &created);
  if (!created) {
    getLogger()->log(kLogError, "[VEL] init(): VELClient had been initialized before init!");
  }
  if (client != nullptr && client->config() != nullptr) {
    getLogger()->log(kLogError, "[VEL] init(): Initialize VELClient, current config:%s",
                     client->config()->toString().c_str());
  }
  return 0;
}

void finish() {
  if (g_instance.load(std::memory_order_acquire) == nullptr) {
    return;
  }
  StaticObjectGuard guard;
  if (!guard.locked()) {
    return;
  }
  VELClient* client = g_instance.exchange(nullptr, std::memory_order_acq_rel);
  if (client == nullptr) {
    return;
  }
  client->stop();
  if (client->release() != 0) {
    getLogger()->log(kLogError, "[VEL] Failed to execute finish.");
  }
  keepRetired(client);
}

VELClient* setInstanceForTest(VELClient* client) {
  StaticObjectGuard guard;
  return g_instance.exchange(client, std::memory_order_acq_rel);
}

}  // namespace VEL
