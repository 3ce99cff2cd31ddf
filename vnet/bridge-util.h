// Small pieces shared by the bridge operations and their exported API.
#pragma once

#include "pelorus/netcfg.h"
#include "pelorus/types.h"

namespace plr {

// True for the library's own virtual adapters ("kavix..." in any case),
// which are never bridged.
bool IsKavixAdapterName(const char* name);

// Owns a linked list of separately allocated adapter elements and frees it
// with PLRFreeHostAdapList when the scope ends. The one owner of such lists:
// builders fill it through out() or Append(), consumers take elements off
// with PopFront() or the whole list with release().
class AdapterList {
 public:
  AdapterList() = default;
  // Takes ownership of the list starting at `head`.
  explicit AdapterList(PLR_HostAdapter* head) : head_(head) {}
  AdapterList(const AdapterList&) = delete;
  AdapterList& operator=(const AdapterList&) = delete;
  ~AdapterList() { PLRFreeHostAdapList(&head_); }

  PLR_HostAdapter* get() const { return head_; }
  // For the out-parameter of the list builders; the list must be empty.
  PLR_HostAdapter** out() { return &head_; }
  bool empty() const { return head_ == nullptr; }

  // Hands the whole list to the caller.
  PLR_HostAdapter* release() {
    PLR_HostAdapter* head = head_;
    head_ = nullptr;
    return head;
  }
  // Takes ownership of `element` as the new first element.
  void PushFront(PLR_HostAdapter* element) {
    element->next = head_;
    head_ = element;
  }
  // Takes ownership of `element` as the new last element.
  void Append(PLR_HostAdapter* element) {
    PLR_HostAdapter** tail = &head_;
    while (*tail != nullptr) tail = &(*tail)->next;
    element->next = nullptr;
    *tail = element;
  }
  // Detaches the first element (nullptr when empty), which then belongs to
  // the caller, e.g. to another AdapterList.
  PLR_HostAdapter* PopFront() {
    PLR_HostAdapter* first = head_;
    if (first != nullptr) {
      head_ = first->next;
      first->next = nullptr;
    }
    return first;
  }

 private:
  PLR_HostAdapter* head_ = nullptr;
};

}  // namespace plr
