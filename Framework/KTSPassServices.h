// KTSPassServices is what making a product needs of the pass it is made in, and no more: the
// pass's memo (what other catalogs' products found, fetched and made) and its fetch scheduler.
// Either may be absent: a product made outside a pass shares nothing and fetches on its own.
// KTSPassContext hands one out; KTSProduct and KTSServerMetadata take it. A plain value; the
// memo and the scheduler must outlive its use.
#pragma once

namespace ondrel {

class KTSFetchScheduler;
class KTSPassMemo;

struct KTSPassServices {
  KTSPassMemo* memo = nullptr;
  KTSFetchScheduler* scheduler = nullptr;
};

}  // namespace ondrel
