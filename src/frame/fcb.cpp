#include "frame/fcb.h"

#include <cstring>

#include "frame/globals.h"

ksFcb* ksNewFcb()
{
    ksG->errorNumber = 1;
    auto* fcb = static_cast<ksFcb*>(ksMemAlloc(sizeof(ksFcb)));
    if (fcb == nullptr)
        return nullptr;
    // Zeroing clears the counters, the child table, the shape cache and
    // the handle state in one step.
    std::memset(fcb, 0, sizeof *fcb);
    fcb->fileVersion = ksVersionUnknown;
    fcb->sourceVersion = ksVersionUnknown;
    fcb->closeAfterLoad = 1;
    ksG->errorNumber = 0;
    return fcb;
}

void ksFreeFcb(ksFcb* fcb) { ksMemFree(fcb); }
