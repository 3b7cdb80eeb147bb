/// @file
/// The dump of an enumeration that the entry points write before and after a request.

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "common/PXR_data_access_internal.h"
#include "common/PXR_trace_internal.h"
#include "libplatform/PXR_trace.h"
#include "libplatform/trace_protocol.h"

namespace {

constexpr size_t kLineLength = PXR_TRACE_TEXT_MAX;

#define PROPERTY_LINE "        Property: propcode=%u(%s) type=%u(%s) value="

uint64_t ReadScalar(const _KVCIM_PROP& p, uint32_t size) {
    uint64_t value = 0;
    std::memcpy(&value, p.value, size);
    return value;
}

/// The text of a property between quotes, an array of texts as one after another; as far as a packet has room.
class QuotedTexts {
public:
    explicit QuotedTexts(const _KVCIM_PROP& p) {
        const TextArray array = TextsOf(p);
        if (array.count == 0) Add(static_cast<const char*>(p.value), TextLength(p));
        for (uint32_t i = 0; i < array.count && length_ < kLineLength; ++i) {
            Add(array.texts[i], kLineLength);
        }
    }

    const char* Text() const { return line_; }

private:
    void Add(const char* text, size_t limit) {
        const auto room = static_cast<int>(std::min(limit, kLineLength));
        const int added =
            std::snprintf(line_ + length_, sizeof line_ - length_, "%s\"%.*s\"", length_ != 0 ? " " : "", room, text);
        length_ = std::min(length_ + static_cast<size_t>(std::max(added, 0)), kLineLength);
    }

    char line_[kLineLength + 1] = {};
    size_t length_ = 0;
};

void TraceOne(int mask, const _KVCIM_PROP& p, int level) {
    const char* const code = PropCodeName(p.code);
    const char* const type = PropTypeName(p.type);
    const uint32_t size = ScalarSize(p.type);
    if (p.value == nullptr || (size == 0 && !IsTextType(p.type))) {
        PXR_trace_ext(mask, level, 0, PROPERTY_LINE "UNDEFINE\n", p.code, code, p.type, type);
    } else if (size == 0) {
        PXR_trace_ext(mask, level, 0, PROPERTY_LINE "%s", p.code, code, p.type, type, QuotedTexts(p).Text());
    } else if (size == 1) {
        PXR_trace_ext(mask, level, 0, PROPERTY_LINE "0x%02X", p.code, code, p.type, type,
                      static_cast<unsigned>(ReadScalar(p, size)));
    } else if (size == 4) {
        PXR_trace_ext(mask, level, 0, PROPERTY_LINE "%08x", p.code, code, p.type, type,
                      static_cast<unsigned>(ReadScalar(p, size)));
    } else {
        PXR_trace_ext(mask, level, 0, PROPERTY_LINE "%016llx", p.code, code, p.type, type,
                      static_cast<unsigned long long>(ReadScalar(p, size)));
    }
}

}  // namespace

void TraceEnum(int mask, const _KVCIM_ENUM* e) {
    if (e == nullptr || !trace::IsOn()) return;
    const int level = e->classId == KTX_CLS_ALERT_RECORD ? PXR_TRACE_LEVEL_POLL : PXR_TRACE_LEVEL_FINE;
    PXR_trace_ext(mask, level, 0, "Enum: namespace=%s class=%u(%s) classcount=%u\n",
                  e->nameSpace != nullptr ? e->nameSpace : "(none)", e->classId, ClassName(e->classId), e->classCount);
    TraceClass(mask, e->first, level);
}

void TraceClass(int mask, const _KVCIM_CLASS* first, int level) {
    for (const _KVCIM_CLASS* c = first; c != nullptr; c = c->next) {
        PXR_trace_ext(mask, level, 0, "    Class: propcount=%u\n", c->propCount);
        TraceProp(mask, c->first, level);
    }
}

void TraceProp(int mask, const _KVCIM_PROP* first, int level) {
    for (const _KVCIM_PROP* p = first; p != nullptr; p = p->next) {
        TraceOne(mask, *p, level);
    }
}
