// The session's kept filter pieces.  See ZelSessionTexts.h.
#include "ZelSessionTexts.h"

#include <memory>

#include "platform/filter_format.h"
#include "ZelPlatform.h"

namespace zel {

SessionTexts &make_session_texts(ZelSession *s) {
    auto texts = std::make_unique<SessionTexts>();
    if (s->domain_name) {
        texts->domain_user_tail.assign(")(secAuthority=");
        plat::append_filter_value(texts->domain_user_tail, s->domain_name);
        texts->domain_user_tail.append(":))");
    }
    texts->resource_tail.assign(",cn=Resources,");
    plat::append_filter_value(texts->resource_tail, s->domain_dn ? s->domain_dn : "");
    texts->resource_tail.push_back(')');
    s->texts = texts.release();
    return *s->texts;
}

void forget_session_texts(ZelSession *s) {
    delete s->texts;
    s->texts = nullptr;
}

}  // namespace zel
