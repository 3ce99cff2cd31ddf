// Small pieces shared by the bridge operations and their exported API.
#pragma once

#include "pelorus/netcfg.h"
#include "pelorus/types.h"

namespace plr {

// True for the library's own virtual adapters ("kavix..." in any case),
// which are never bridged.
bool IsKavixAdapterName(const char* name);

// Pushes `element` in front of the list at `*head`.
void PushFront(PLR_HostAdapter** head, PLR_HostAdapter* element);

// Owns a linked list of separately allocated adapter elements and frees it
// with PLRFreeHostAdapList when the scope ends.
class AdapterList {
 public:
  AdapterList() = default;
  AdapterList(const AdapterList&) = delete;
  AdapterList& operator=(const AdapterList&) = delete;
  ~AdapterList() { PLRFreeHostAdapList(&head_); }

  PLR_HostAdapter* get() const { return head_; }
  // For the out-parameter of the list builders; the list must be empty.
  PLR_HostAdapter** out() { return &head_; }
  bool empty() const { return head_ == nullptr; }

 private:
  PLR_HostAdapter* head_ = nullptr;
};

}  // namespace plr
