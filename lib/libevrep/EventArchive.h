// Insertion and extraction of whole event records: the bytes in which events travel between the
// programs of the appliance. docs/wire-format.md holds the grammar.
//
// Every insertion writes field after field without header or padding. Every extraction leaves the
// destination as it was when the archive fails. Texts of the contexts travel in their wide form,
// and a zero character in one ends it.
#pragma once

#include "libevrep/CArchive.h"
#include "libevrep/EventContext.h"

// The detail context that the discriminant names, when absent, is written as an empty one. Any
// other discriminant is kept and brings no context.
CArchive& operator<<(CArchive& archive, const GW_EVENT& event);
CArchive& operator>>(CArchive& archive, GW_EVENT& event);

CArchive& operator<<(CArchive& archive, const GW_SCAN_CONTEXT& context);
CArchive& operator>>(CArchive& archive, GW_SCAN_CONTEXT& context);

CArchive& operator<<(CArchive& archive, const GW_STATS_CONTEXT& context);
CArchive& operator>>(CArchive& archive, GW_STATS_CONTEXT& context);

CArchive& operator<<(CArchive& archive, const GW_MAIL& counts);
CArchive& operator>>(CArchive& archive, GW_MAIL& counts);

CArchive& operator<<(CArchive& archive, const GW_HTTP& counts);
CArchive& operator>>(CArchive& archive, GW_HTTP& counts);

CArchive& operator<<(CArchive& archive, const GW_FTP& counts);
CArchive& operator>>(CArchive& archive, GW_FTP& counts);

CArchive& operator<<(CArchive& archive, const StringValuePairList& list);
CArchive& operator>>(CArchive& archive, StringValuePairList& list);

CArchive& operator<<(CArchive& archive, const GW_FILTER& filter);
CArchive& operator>>(CArchive& archive, GW_FILTER& filter);
