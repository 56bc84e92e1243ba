#pragma once

#include <cstdlib>

#include "platform/portolan/Portolan.h"

namespace kestrow {

// Owns a folder or storage listing that the device-access library filled
// (the receiver frees it): frees every name still held and the items when
// it goes. A name freed early must be set to null.
class MtpItemList {
public:
    MtpItemList() = default;
    ~MtpItemList() { reset(); }
    MtpItemList(const MtpItemList&) = delete;
    MtpItemList& operator=(const MtpItemList&) = delete;

    // For the library to fill; reset() it before another fill.
    t_mtp_item_list& get() { return list_; }
    unsigned size() const { return list_.count; }
    t_mtp_item& operator[](unsigned i) { return list_.items[i]; }

    void reset() {
        for (unsigned i = 0; list_.items && i < list_.count; ++i)
            std::free(list_.items[i].name);
        std::free(list_.items);
        list_ = {0, nullptr};
    }

private:
    t_mtp_item_list list_ = {0, nullptr};
};

}  // namespace kestrow
