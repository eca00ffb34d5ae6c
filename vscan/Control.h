// The switches behind the Vscan... exports and the settings file, on a given source.
#pragma once

#include <vector>

#include "Source.h"

namespace vscan {

void SetPages(Source &s, int pages);
bool SetAutoScan(Source &s, int mode);
void SetIdentity(Source &s, const char *manufacturer, const char *family, const char *product);
bool AddTripletFault(Source &s, const TripletFault &fault);
bool SetContainer(Source &s, TW_UINT16 cap, TW_UINT16 msg, TW_UINT16 conType);
bool SetItemType(Source &s, TW_UINT16 cap, TW_UINT16 itemType);
bool SetFault(Source &s, int fault, int value);
bool SetMalformed(Source &s, TW_UINT16 cap, TW_UINT16 msg, int kind);
bool SetSetType(Source &s, TW_UINT16 cap, TW_UINT16 itemType);
bool SetValues(Source &s, TW_UINT16 cap, const std::vector<double> &values);

} // namespace vscan
