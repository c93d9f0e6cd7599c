#include "frame/fcb.h"

#include <cstring>

#include "frame/globals.h"
#include "store/list.h"

namespace {

// The drawing's lists in the order they are made.
ksLoc ksFcb::*const kLists[ksFcbListCount] = {
    &ksFcb::layers,     &ksFcb::linetypes, &ksFcb::ucses,        &ksFcb::views,
    &ksFcb::vports,     &ksFcb::vpEntList, &ksFcb::dimStyles,    &ksFcb::regApps,
    &ksFcb::blockHeaders, &ksFcb::shapeFiles, &ksFcb::classes,   &ksFcb::objects,
};

}  // namespace

ksFcb* ksNewFcb()
{
    ksG->errorNumber = 1;
    auto* fcb = static_cast<ksFcb*>(ksMemAlloc(sizeof(ksFcb)));
    if (fcb == nullptr)
        return nullptr;
    // Zeroing clears the counters, the child table, the shape cache, the
    // index root and the handle state in one step.
    std::memset(fcb, 0, sizeof *fcb);
    for (ksLoc ksFcb::*list : kLists) {
        fcb->*list = ksListNew();
        if (fcb->*list == 0) {
            for (ksLoc ksFcb::*made : kLists)
                ksListFree(fcb->*made);
            ksMemFree(fcb);
            ksG->errorNumber = 1;
            return nullptr;
        }
    }
    fcb->fileVersion = ksVersionUnknown;
    fcb->sourceVersion = ksVersionUnknown;
    fcb->closeAfterLoad = 1;
    ksG->errorNumber = 0;
    return fcb;
}

void ksFreeFcb(ksFcb* fcb)
{
    if (fcb == nullptr)
        return;
    for (ksLoc ksFcb::*list : kLists)
        ksListFree(fcb->*list);
    ksMemFree(fcb);
}
