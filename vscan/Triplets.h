// What every triplet handler gets, and the image-group handlers the dispatch table routes to.
#pragma once

#include "Source.h"

namespace vscan {

// One DS_Entry call in flight: the source, the caller, the data record and the condition code a failure leaves.
struct Call {
    Source &source;
    pTW_IDENTITY origin;
    TW_UINT16 msg;
    TW_MEMREF data;
    TW_UINT16 cc;
};

typedef TW_UINT16 (*Handler)(Call &call);

TW_UINT16 GetImageInfo(Call &call);
TW_UINT16 GetImageLayout(Call &call);
TW_UINT16 GetDefaultImageLayout(Call &call);
TW_UINT16 SetImageLayout(Call &call);
TW_UINT16 ResetImageLayout(Call &call);
TW_UINT16 GetPalette(Call &call);
TW_UINT16 NativeXfer(Call &call);
TW_UINT16 FileXfer(Call &call);
TW_UINT16 MemoryXfer(Call &call);

} // namespace vscan
