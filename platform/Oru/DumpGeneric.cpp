// The generic state dump: walking attributes through reflection, writing line by line.
#include "Oru/DumpGeneric.h"

#include <exception>
#include <iterator>
#include <string_view>
#include <utility>

#include <fmt/format.h>

#include "Oru/WeakRef.h"
#include "Wex/Type.h"

namespace Oru {

namespace {

// Formats one line on the stack and hands it to the context, so no dump text accumulates.
template <class... A>
void line(DumpContext& ctx, unsigned depth, fmt::format_string<A...> format, A&&... args) {
    fmt::memory_buffer buf;
    auto out = fmt::format_to(std::back_inserter(buf), "{:{}}", "", std::size_t(depth) * 2);
    fmt::format_to(out, format, std::forward<A>(args)...);
    buf.push_back('\n');
    ctx.write(std::string_view(buf.data(), buf.size()));
}

std::string errorText(std::exception_ptr e) {
    try {
        std::rethrow_exception(std::move(e));
    } catch (std::exception const& x) {
        return x.what();
    } catch (...) {
        return "non-standard exception";
    }
}

void const* address(Wex::PtrInterface const* o) noexcept { return o; }

// The object a value leads to: what a counted pointer holds, or a marked back pointer's target
// while the context follows those.
Wex::PtrInterface const* targetOf(Wex::Value const& v, DumpContext const& ctx) noexcept {
    if (Wex::PtrInterface const* o = v.object()) return o;
    if (WeakRef const* w = v.as<WeakRef>(); w && ctx.followWeakReferences()) return w->ptr();
    return nullptr;
}

void walk(DumpContext& ctx, Lumo::Ptr<Wex::PtrInterface const> const& obj, Wex::WexType const* type, unsigned depth);

// Writes "<label> <value>" at `depth`, and walks the object the value leads to one level deeper.
void writeValue(DumpContext& ctx, unsigned depth, std::string_view label, Wex::Value const& v) {
    Wex::PtrInterface const* o = targetOf(v, ctx);
    Wex::WexType const* t = o ? o->fwkType() : nullptr;
    if (!t) {
        line(ctx, depth, "{} {}", label, v.text());
    } else if (ctx.visited(o)) {
        line(ctx, depth, "{} ^{} ({}, already shown)", label, address(o), t->name());
    } else if (depth + 1 > ctx.depthLimit()) {
        line(ctx, depth, "{} {} ({}, not shown: depth limit)", label, address(o), t->name());
    } else {
        line(ctx, depth, "{} {} ({})", label, address(o), t->name());
        walk(ctx, Lumo::Ptr<Wex::PtrInterface const>(o), t, depth + 1);
    }
}

void writeCollection(DumpContext& ctx, unsigned depth, Wex::WexAttr const& attr, void const* object) {
    line(ctx, depth, "{}: {}", attr.name(), attr.count(object));
    fmt::memory_buffer label;
    attr.forEach(object, [&](Wex::Value const& key, Wex::Value const& value) {
        label.clear();
        // A set's members are their own keys: listed once, as items.
        if (key.empty()) fmt::format_to(std::back_inserter(label), "-");
        else fmt::format_to(std::back_inserter(label), "{} ->", key.text());
        writeValue(ctx, depth + 1, std::string_view(label.data(), label.size()), value);
    });
}

bool shown(Wex::WexAttr const& attr) noexcept {
    switch (attr.kind()) {
    case Wex::AttrKind::attribute:
    case Wex::AttrKind::constant:
    case Wex::AttrKind::collection:
        return attr.readable();
    case Wex::AttrKind::operation:
    case Wex::AttrKind::staticOperation:
        return false;
    }
    return false;
}

void walk(DumpContext& ctx, Lumo::Ptr<Wex::PtrInterface const> const& obj, Wex::WexType const* type, unsigned depth) {
    if (!obj) return;
    if (!type) type = obj->fwkType();
    if (!type) {
        line(ctx, depth, "<no type table>");
        return;
    }
    if (depth > ctx.depthLimit()) {
        line(ctx, depth, "<not shown: depth limit>");
        return;
    }
    try {
        // Refuses an object that is not of `type`; its attributes could not be read.
        type->genericIf(Lumo::Ptr<Wex::PtrInterface>(const_cast<Wex::PtrInterface*>(obj.ptr())));
    } catch (...) {
        line(ctx, depth, "<error: {}>", errorText(std::current_exception()));
        return;
    }
    if (!ctx.visitedIs(obj.ptr())) {
        line(ctx, depth, "^{} ({}, already shown)", address(obj.ptr()), type->name());
        return;
    }
    // Attributes are read through the most derived object; the type only says which to show.
    void const* object = obj.ptr();
    for (Wex::WexAttr const* attr : type->allAttrs()) {
        if (!shown(*attr)) continue;
        try {
            if (attr->kind() == Wex::AttrKind::collection) {
                writeCollection(ctx, depth, *attr, object);
            } else {
                fmt::memory_buffer label;
                fmt::format_to(std::back_inserter(label), "{}:", attr->name());
                writeValue(ctx, depth, std::string_view(label.data(), label.size()), attr->get(object));
            }
        } catch (...) {
            line(ctx, depth, "{}: <error: {}>", attr->name(), errorText(std::current_exception()));
        }
    }
}

} // namespace

void dumpObject(Lumo::Ptr<Wex::PtrInterface const> const& obj, DumpContext& ctx) {
    if (!obj) {
        line(ctx, 0, "null");
        return;
    }
    Wex::WexType const* t = obj->fwkType();
    line(ctx, 0, "{} ({})", address(obj.ptr()), t ? t->name() : std::string_view("no type"));
    Impl::doObjDumpChildPtrGeneric(obj, t, ctx, 1);
}

void Impl::doObjDumpChildPtrGeneric(Lumo::Ptr<Wex::PtrInterface const> const& obj, Wex::WexType const* type,
                                    DumpContext& ctx, unsigned depth) {
    DumpContext::Walk const scope(ctx);
    walk(ctx, obj, type, depth);
}

} // namespace Oru
