// cloudsim_page.h - the one web page cloudsim serves at "/".
#pragma once

namespace cloudsim {

// A self-contained HTML document (inline style and script, no other requests than the
// stand-in's own /api/ calls) that polls /api/reports and shows what arrived.
extern const char kPage[];

}  // namespace cloudsim
