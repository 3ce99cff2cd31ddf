// The exported bridge functions: the default bridge network, the host adapter
// list and moving an adapter between vnets. Every change either completes
// (mappings, default bridge vnet and restarted bridge daemons agree) or is
// undone by its rollback function, which holds all undo steps in one place.
#include <stdlib.h>
#include <string.h>

#include "base/fd-util.h"
#include "core/frame.h"
#include "pelorus/bridge.h"
#include "pelorus/core.h"
#include "pelorus/netcfg.h"
#include "pelorus/services.h"
#include "pelorus/vnet.h"
#include "vnet/bridge-util.h"

namespace plr {
namespace {

// Restarts the bridge daemon of `vnet` if it runs, noting in `*wasRunning`
// whether it did, so a rollback knows what to start again.
bool RestartBridge(uint32_t vnet, bool* wasRunning) {
  return PLRRestartService(vnet, PLR_SERVICE_BRIDGE, wasRunning, nullptr, false);
}

// Starts the bridge daemon of `vnet` again during a rollback, but only when
// it was running before the change.
bool RestoreBridge(uint32_t vnet, bool wasRunning) {
  if (!wasRunning) return true;
  return PLRRestartService(vnet, PLR_SERVICE_BRIDGE, nullptr, nullptr, true);
}

// ---- Changing the default bridge vnet ----

// What one change of the default bridge vnet did so far.
struct DefaultBridgeChange {
  uint32_t requested = PLR_VNET_NONE;  // R
  uint32_t current = PLR_VNET_NONE;    // C
  uint32_t listOwner = PLR_VNET_NONE;  // S: whose adapters get explicit mappings
  uint32_t newOwner = PLR_VNET_NONE;   // T: the vnet they are mapped to
  bool readOnly = false;
  AdapterList list;
  bool oldWasRunning = false;
  bool newWasRunning = false;
};

// Steps after the lock: pin the adapters by explicit mappings, write the new
// default, restart the daemons of the old and the new default. False means
// the caller must roll back. Logs under `function`.
bool ApplyDefaultBridgeChange(const char* function, DefaultBridgeChange& c) {
  uint32_t count = 0;
  if (!PLRGetVnetBridge(c.listOwner, &count, c.list.out())) {
    PLOG_AS(function, LOG_ERR, "Error creating list of adapters on host");
    return false;
  }
  PLOG_AS(function, LOG_INFO2, "Obtained list of %u adapters", count);
  if (!PLRSetBridgeMappingForMultipleAdapters(c.newOwner, c.list.get())) {
    PLOG_AS(function, LOG_ERR, "Failed to set the bridge mappings, vnet: %d",
            static_cast<int>(c.newOwner));
    return false;
  }
  if (!PLRSetDefaultBridgeVnet(c.requested)) {
    PLOG_AS(function, LOG_INFO, "Failed to set value of default bridge: %d",
            static_cast<int>(c.requested));
    return false;
  }
  if (c.readOnly) return true;  // no daemons are touched for a read-only database
  if (c.current < PLR_MAX_VNETS && !RestartBridge(c.current, &c.oldWasRunning)) {
    PLOG_AS(function, LOG_ERR, "Failed to restart bridge service on old default bridge: %d",
            static_cast<int>(c.current));
    return false;
  }
  if (c.requested < PLR_MAX_VNETS && !RestartBridge(c.requested, &c.newWasRunning)) {
    PLOG_AS(function, LOG_ERR, "Failed to restart bridge service on new default bridge: %d",
            static_cast<int>(c.requested));
    return false;
  }
  return true;
}

// The undo of ApplyDefaultBridgeChange: the old default first, then the
// mappings, and only then the daemons, so restarted daemons read the
// restored settings. Every failure is logged under `function`; the undo goes
// on.
void UndoDefaultBridgeChange(const char* function, const DefaultBridgeChange& c) {
  if (!PLRSetDefaultBridgeVnet(c.current))
    PLOG_AS(function, LOG_INFO, "Failed to restore value of default bridge: %d",
            static_cast<int>(c.current));
  if (!c.list.empty() && !PLRSetBridgeMappingForMultipleAdapters(c.listOwner, c.list.get()))
    PLOG_AS(function, LOG_ERR, "Failed to restore the bridge mappings for vnet: %d",
            static_cast<int>(c.listOwner));
  if (c.readOnly) return;
  if (!RestoreBridge(c.current, c.oldWasRunning))
    PLOG_AS(function, LOG_ERR,
            "Failed to restart bridge service on old default bridge: %d during cleanup",
            static_cast<int>(c.current));
  if (!RestoreBridge(c.requested, c.newWasRunning))
    PLOG_AS(function, LOG_ERR,
            "Failed to restart bridge service on old default bridge: %d during cleanup",
            static_cast<int>(c.requested));
}

// ---- Moving one adapter ----

// What one move of an adapter did so far.
struct AdapterMove {
  const char* adapter = nullptr;
  uint32_t source = PLR_VNET_NONE;         // S
  uint32_t destination = PLR_VNET_NONE;    // T
  uint32_t defaultBridge = PLR_VNET_NONE;  // D
  bool readOnly = false;
  bool hadMapping = false;       // the adapter had an explicit mapping before the move
  int32_t previousMapping = -1;  // its vnet then
  bool mapped = false;           // the move changed the adapter's mapping
  AdapterList displaced;         // adapters bridged to T before the move
  bool sourceWasRunning = false;
  bool destinationWasRunning = false;
  bool defaultWasRunning = false;
};

// Steps after the lock: note the adapter's explicit mapping, map the
// adapter, hand T's former adapters to the default bridge, restart the
// daemons of T, D and S. False means roll back. Logs under `function`.
bool ApplyAdapterMove(const char* function, AdapterMove& m) {
  m.hadMapping = PLRNetCfgLookupVnetForHostAdapter(nullptr, m.adapter, &m.previousMapping);
  if (!PLRSetBridgeMappingForAdapter(m.adapter, m.destination)) {
    PLOG_AS(function, LOG_ERR, "Unable to bridge host adapter: %s to vnet: %d", m.adapter,
            static_cast<int>(m.destination));
    return false;
  }
  m.mapped = true;
  if (m.destination < PLR_MAX_VNETS) {
    // A vnet other than the default bridge keeps one bridged adapter.
    if (!PLRSetBridgeMappingForMultipleAdapters(m.defaultBridge, m.displaced.get())) {
      PLOG_AS(function, LOG_ERR, "Failed to move adapters from destination vnet to default bridge");
      return false;
    }
    if (!m.readOnly) {
      if (!RestartBridge(m.destination, &m.destinationWasRunning)) {
        PLOG_AS(function, LOG_ERR, "Failed to restart bridge service on destination vnet: %d",
                static_cast<int>(m.destination));
        return false;
      }
      if (m.defaultBridge < PLR_MAX_VNETS &&
          !RestartBridge(m.defaultBridge, &m.defaultWasRunning)) {
        PLOG_AS(function, LOG_ERR, "Failed to restart bridge service on destination vnet: %d",
                static_cast<int>(m.defaultBridge));
        return false;
      }
    }
  }
  if (m.readOnly) return true;
  if (m.source < PLR_MAX_VNETS && !RestartBridge(m.source, &m.sourceWasRunning)) {
    PLOG_AS(function, LOG_ERR, "Failed to restart bridge service on old default bridge: %d",
            static_cast<int>(m.source));
    return false;
  }
  return true;
}

// The undo of ApplyAdapterMove: mappings first, exactly as they were (an
// adapter that followed the default bridge loses its explicit mapping
// again), then the daemons that had been running, each started again from
// the restored mappings. Logs under `function`.
void UndoAdapterMove(const char* function, const AdapterMove& m) {
  const bool restored =
      !m.mapped || (m.hadMapping ? PLRSetBridgeMappingForAdapter(
                                       m.adapter, static_cast<uint32_t>(m.previousMapping))
                                 : PLRNetCfgRemoveHostAdapterMapping(nullptr, m.adapter));
  if (!restored)
    PLOG_AS(function, LOG_ERR, "Unable to restore host adapter: %s to its previous vnet: %d",
            m.adapter, static_cast<int>(m.source));
  if (!m.displaced.empty() &&
      !PLRSetBridgeMappingForMultipleAdapters(m.destination, m.displaced.get()))
    PLOG_AS(function, LOG_ERR,
            "Failed to move back adapters from default bridge to destination vnet");
  if (m.readOnly) return;
  if (!RestoreBridge(m.source, m.sourceWasRunning))
    PLOG_AS(function, LOG_ERR,
            "Failed to restart bridge service on source vnet: %d, during cleanup",
            static_cast<int>(m.source));
  if (!RestoreBridge(m.destination, m.destinationWasRunning))
    PLOG_AS(function, LOG_ERR,
            "Failed to restart bridge service on destination vnet: %d, during cleanup",
            static_cast<int>(m.destination));
  if (!RestoreBridge(m.defaultBridge, m.defaultWasRunning))
    PLOG_AS(function, LOG_ERR,
            "Failed to restart bridge service on default bridge vnet: %d, during cleanup",
            static_cast<int>(m.defaultBridge));
}

// Resolves the source vnet of a move: the given one after checking that the
// adapter is bridged to it, or the adapter's current mapping. Logs under
// `function`.
bool ResolveMoveSource(const char* function, const char* adapter, const PLR_NetworkID* source,
                       uint32_t* out) {
  if (source != nullptr) {
    if (!PLRValidateNetIDStruct(source)) {
      PLOG_AS(function, LOG_ERR, "Invalid destination network");
      return false;
    }
    PLOG_AS(function, LOG_INFO2, "Checking source vnet: %d to see if it is bridged to adapter: %s",
            static_cast<int>(source->vnet), adapter);
  }
  uint32_t current = PLR_VNET_NONE;
  if (!PLRGetBridgeMappingForAdapter(adapter, &current)) {
    PLOG_AS(function, LOG_ERR, "Failed to get the bridge mapping for host adapter: %s, aborting",
            adapter);
    return false;
  }
  if (source != nullptr && current != source->vnet) {
    PLOG_AS(function, LOG_ERR, "Souce vnet: %d is not bridged to specified host adapter: %s",
            static_cast<int>(source->vnet), adapter);
    return false;
  }
  *out = current;
  return true;
}

// Copies the non-kavix elements of `source` into the slots that follow
// `header`, linking them; returns false when list and count disagree.
// Logs under `fn`.
bool FillContiguousList(const char* fn, const PLR_HostAdapter* source, uint32_t expected,
                        PLR_HostAdapterList* header) {
  auto* slots = reinterpret_cast<PLR_HostAdapter*>(header + 1);
  uint32_t copied = 0;
  uint32_t visited = 0;
  PLR_HostAdapter* last = nullptr;
  for (; source != nullptr && visited < expected; source = source->next, ++visited) {
    if (IsKavixAdapterName(source->name)) {
      PLOG_AS(fn, LOG_INFO2, "Skipping kavix virtual adapter: %s", source->name);
      continue;
    }
    PLR_HostAdapter* slot = &slots[copied++];
    *slot = *source;
    slot->next = nullptr;
    slot->netId.version = PLR_NETID_VERSION;
    slot->netId.netType = PLR_NETID_TYPE_VNET;
    PLOG_AS(fn, LOG_INFO2, "vnet: %d is bridged to host adapter: %s",
            static_cast<int>(slot->netId.vnet), slot->name);
    if (last != nullptr) last->next = slot;
    last = slot;
  }
  header->count = copied;
  header->first = copied > 0 ? slots : nullptr;
  if ((source != nullptr) != (visited < expected)) {
    PLOG_AS(fn, LOG_ERR, "Something wrong with the list operations or count");
    return false;
  }
  return true;
}

}  // namespace
}  // namespace plr

extern "C" {

// Reports the default bridge vnet as a network-ID record.
bool PLR_GetBridgeDefaultNetwork(PLR_NetworkID* out) {
  using namespace plr;
  return ApiCall(__func__, [&](Api& c) {
    c.Args("Arguments - netId: %p", static_cast<void*>(out));
    if (out == nullptr) return c.Fail("Invalid argument - netId: %p", static_cast<void*>(out));
    if (out->version != PLR_NETID_VERSION)
      return c.Fail("Unsupported version number: %u", out->version);
    uint32_t vnet = PLR_VNET_NONE;
    if (!PLRGetDefaultBridgeVnet(&vnet)) return c.Fail("Failed to get value of default bridge");
    out->vnet = vnet;
    out->netType = PLR_NETID_TYPE_VNET;
    return true;
  });
}

// Makes vnet 0 or none the default bridge; adapters stay where they were
// bridged because they get explicit mappings first.
bool PLR_SetBridgeDefaultNetwork(const PLR_NetworkID* in) {
  using namespace plr;
  return ApiCall(__func__, [&](Api& c) {
    c.Args("Arguments - netId: %p", static_cast<const void*>(in));
    if (in == nullptr || !PLRValidateNetIDStruct(in))
      return c.Fail("Invalid arguments - netId: %p", static_cast<const void*>(in));
    DefaultBridgeChange change;
    change.requested = in->vnet;
    // Only vnet 0 or none can be the default bridge.
    if (change.requested != 0 && change.requested != PLR_VNET_NONE)
      return c.Fail("Invalid vnet number for default bridge: %d",
                    static_cast<int>(change.requested));
    if (!PLRGetDefaultBridgeVnet(&change.current))
      return c.Fail("Failed to get value of default bridge");
    if (change.requested == change.current) {
      c.Log(LOG_INFO, "Current and requested values of DefaultBridgeVnet are same. Nothing to do");
      return true;
    }
    return c.Locked([&] {
      change.readOnly = PLRNetCfgIsReadOnly(nullptr);
      if (change.requested == PLR_VNET_NONE) {
        // The adapters bridged by default to C get explicit mappings to C.
        change.listOwner = change.newOwner = change.current;
      } else {
        // The adapters bridged to nothing get explicit mappings to R.
        change.listOwner = PLR_VNET_NONE;
        change.newOwner = change.requested;
      }
      if (ApplyDefaultBridgeChange(c.function(), change)) return true;
      UndoDefaultBridgeChange(c.function(), change);
      return false;
    });
  });
}

// Every adapter, host-enumerated or mapped, with its vnet, as one block.
bool PLR_GetHostAdapterList(uint32_t version, PLR_HostAdapterList** out) {
  using namespace plr;
  return ApiCall(__func__, [&](Api& c) {
    c.Args("Arguments - version: %u, header: %p", version, static_cast<void*>(out));
    if (out == nullptr) return c.Fail("Invalid argument - header: %p", static_cast<void*>(out));
    if (version != PLR_HOSTADAPTER_VERSION)
      return c.Fail("Unsupported version number: %u", version);
    uint32_t count = 0;
    AdapterList source;
    if (!PLRGetVnetBridge(PLR_VNET_ALL, &count, source.out()))
      return c.Fail("Error creating list of adapters on host");
    c.Log(LOG_INFO2, "Obtained non-contig list of %u adapters", count);
    // Logged on every return from here on, after the exit line, when
    // `source` is freed.
    ScopeExit logFree([&] { c.Log(LOG_INFO2, "Freeing non-contig list of adapters"); });
    ScopeExit exitFirst([&] { c.Exit(); });
    auto* header = static_cast<PLR_HostAdapterList*>(
        calloc(1, sizeof(PLR_HostAdapterList) + size_t{count} * sizeof(PLR_HostAdapter)));
    if (header == nullptr) return c.Fail("Error in allocating memory for PLR_HostAdapterList");
    header->version = PLR_HOSTADAPTER_VERSION;
    if (!FillContiguousList(c.function(), source.get(), count, header)) {
      free(header);
      return false;
    }
    c.Log(LOG_OK, "Returning list of %u host adapters", header->count);
    *out = header;
    return true;
  });
}

// Frees a list made by PLR_GetHostAdapterList; needs no loaded library.
void PLR_FreeHostAdapterList(PLR_HostAdapterList* list) {
  plr::ApiCall(__func__, plr::kAnyState, [&](plr::Api&) { free(list); });
}

// Bridges one adapter to another vnet (the default bridge when no
// destination is given), all or nothing.
bool PLR_BridgeMoveAdapter(const PLR_HostAdapter* adapter, const PLR_NetworkID* source,
                           const PLR_NetworkID* destination) {
  using namespace plr;
  return ApiCall(__func__, [&](Api& c) {
    c.Args("Arguments - adapter: %p, source: %p, destination: %p",
           static_cast<const void*>(adapter), static_cast<const void*>(source),
           static_cast<const void*>(destination));
    if (adapter == nullptr)
      return c.Fail("Invalid arguments - adapter: %p", static_cast<const void*>(adapter));
    if (adapter->version != PLR_HOSTADAPTER_VERSION)
      return c.Fail("Unsupported adapter version: %u", adapter->version);
    AdapterMove move;
    move.adapter = adapter->name;
    if (!PLRGetDefaultBridgeVnet(&move.defaultBridge))
      return c.Fail("Failed to get value of default bridge");
    move.destination = move.defaultBridge;
    if (destination != nullptr) {
      if (!PLRValidateNetIDStruct(destination)) return c.Fail("Invalid destination network");
      move.destination = destination->vnet;
    }
    if (!ResolveMoveSource(c.function(), move.adapter, source, &move.source)) return false;
    c.Log(LOG_INFO2, "SourceVnet: %d, DestinationVnet: %d", static_cast<int>(move.source),
          static_cast<int>(move.destination));
    if (move.destination == move.source) {
      c.Log(LOG_INFO, "Host adapter: %s is already configured as bridge for vnet: %d", move.adapter,
            static_cast<int>(move.destination));
      return true;
    }
    if (move.destination != move.defaultBridge && move.destination != PLR_VNET_NONE &&
        !PLRGetVnetBridge(move.destination, nullptr, move.displaced.out()))
      return c.Fail("Failed to get adapter bridged to vnet: %d",
                    static_cast<int>(move.destination));
    return c.Locked([&] {
      move.readOnly = PLRNetCfgIsReadOnly(nullptr);
      if (ApplyAdapterMove(c.function(), move)) return true;
      UndoAdapterMove(c.function(), move);
      return false;
    });
  });
}

}  // extern "C"
