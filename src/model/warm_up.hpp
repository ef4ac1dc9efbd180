// One-time initialisation of the codec's libraries, before any exit hook that may encode.
#pragma once

namespace zelvanor::detail {
void warmUpCodec();
}
