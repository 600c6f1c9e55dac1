// KTSPassServices is what making a product needs of the context it is made in, and no more: the
// server's layout (where its files go), the pass's memo (what other catalogs' products found,
// fetched and made) and its fetch scheduler. The layout is always there; the memo and the
// scheduler may be absent: a product made outside a pass shares nothing and fetches on its own.
// KTSPassContext hands one out; KTSProduct and KTSServerMetadata take it. A plain value; what it
// points to must outlive its use.
#pragma once

namespace ondrel {

class KTSFetchScheduler;
class KTSPassMemo;
class KTSServerLayout;

struct KTSPassServices {
  const KTSServerLayout* layout = nullptr;
  KTSPassMemo* memo = nullptr;
  KTSFetchScheduler* scheduler = nullptr;
};

}  // namespace ondrel
