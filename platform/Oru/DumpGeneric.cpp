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

// One pass over the graph from a root. The showing pass writes the lines and marks each object
// it shows; the unmarking pass that follows retraces the very same course (the same order, the
// same depth limits, a marked object standing for one not yet shown) and clears the marks.
struct Pass {
    DumpContext& ctx;
    bool unmarking;

    bool visited(Wex::PtrInterface const* o) const noexcept { return unmarking ? !o->walkMarked() : ctx.visited(o); }
    bool visitedIs(Wex::PtrInterface const* o) const noexcept {
        if (!unmarking) return ctx.visitedIs(o);
        if (!o->walkMarked()) return false;
        o->walkMarkedIs(false);
        return true;
    }
    // Formats one line on the stack and hands it to the context, so no dump text accumulates.
    template <class... A>
    void line(unsigned depth, fmt::format_string<A...> format, A&&... args) const {
        if (unmarking) return;
        fmt::memory_buffer buf;
        auto out = fmt::format_to(std::back_inserter(buf), "{:{}}", "", std::size_t(depth) * 2);
        fmt::format_to(out, format, std::forward<A>(args)...);
        buf.push_back('\n');
        ctx.write(std::string_view(buf.data(), buf.size()));
    }
};

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

void walk(Pass const& pass, Lumo::Ptr<Wex::PtrInterface const> const& obj, Wex::WexType const* type, unsigned depth);

// Writes "<label> <value>" at `depth`, and walks the object the value leads to one level deeper.
void writeValue(Pass const& pass, unsigned depth, std::string_view label, Wex::Value const& v) {
    Wex::PtrInterface const* o = targetOf(v, pass.ctx);
    Wex::WexType const* t = o ? o->fwkType() : nullptr;
    if (!t) {
        if (!pass.unmarking) pass.line(depth, "{} {}", label, v.text());
    } else if (pass.visited(o)) {
        pass.line(depth, "{} ^{} ({}, already shown)", label, address(o), t->name());
    } else if (depth + 1 > pass.ctx.depthLimit()) {
        pass.line(depth, "{} {} ({}, not shown: depth limit)", label, address(o), t->name());
    } else {
        pass.line(depth, "{} {} ({})", label, address(o), t->name());
        walk(pass, Lumo::Ptr<Wex::PtrInterface const>(o), t, depth + 1);
    }
}

void writeCollection(Pass const& pass, unsigned depth, Wex::WexAttr const& attr, void const* object) {
    pass.line(depth, "{}: {}", attr.name(), attr.count(object));
    fmt::memory_buffer label;
    attr.forEach(object, [&](Wex::Value const& key, Wex::Value const& value) {
        label.clear();
        // A set's members are their own keys: listed once, as items.
        if (!pass.unmarking) {
            if (key.empty()) fmt::format_to(std::back_inserter(label), "-");
            else fmt::format_to(std::back_inserter(label), "{} ->", key.text());
        }
        writeValue(pass, depth + 1, std::string_view(label.data(), label.size()), value);
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

void walk(Pass const& pass, Lumo::Ptr<Wex::PtrInterface const> const& obj, Wex::WexType const* type, unsigned depth) {
    if (!obj) return;
    if (!type) type = obj->fwkType();
    if (!type) {
        pass.line(depth, "<no type table>");
        return;
    }
    if (depth > pass.ctx.depthLimit()) {
        pass.line(depth, "<not shown: depth limit>");
        return;
    }
    try {
        // Refuses an object that is not of `type`; its attributes could not be read.
        type->genericIf(Lumo::Ptr<Wex::PtrInterface>(const_cast<Wex::PtrInterface*>(obj.ptr())));
    } catch (...) {
        if (!pass.unmarking) pass.line(depth, "<error: {}>", errorText(std::current_exception()));
        return;
    }
    if (!pass.visitedIs(obj.ptr())) {
        pass.line(depth, "^{} ({}, already shown)", address(obj.ptr()), type->name());
        return;
    }
    // Attributes are read through the most derived object; the type only says which to show.
    void const* object = obj.ptr();
    for (Wex::WexAttr const* attr : type->allAttrs()) {
        if (!shown(*attr)) continue;
        try {
            if (attr->kind() == Wex::AttrKind::collection) {
                writeCollection(pass, depth, *attr, object);
            } else if (pass.unmarking) {
                writeValue(pass, depth, {}, attr->get(object));
            } else {
                fmt::memory_buffer label;
                fmt::format_to(std::back_inserter(label), "{}:", attr->name());
                writeValue(pass, depth, std::string_view(label.data(), label.size()), attr->get(object));
            }
        } catch (...) {
            if (!pass.unmarking) pass.line(depth, "{}: <error: {}>", attr->name(), errorText(std::current_exception()));
        }
    }
}

} // namespace

void dumpObject(Lumo::Ptr<Wex::PtrInterface const> const& obj, DumpContext& ctx) {
    if (!obj) {
        Pass{ctx, false}.line(0, "null");
        return;
    }
    Wex::WexType const* t = obj->fwkType();
    Pass{ctx, false}.line(0, "{} ({})", address(obj.ptr()), t ? t->name() : std::string_view("no type"));
    Impl::doObjDumpChildPtrGeneric(obj, t, ctx, 1);
}

void Impl::doObjDumpChildPtrGeneric(Lumo::Ptr<Wex::PtrInterface const> const& obj, Wex::WexType const* type,
                                    DumpContext& ctx, unsigned depth) {
    // The marks go whatever happens in the showing pass: the unmarking one cannot fail.
    struct Unmark {
        Pass pass;
        Lumo::Ptr<Wex::PtrInterface const> const& obj;
        Wex::WexType const* type;
        unsigned depth;
        ~Unmark() {
            try {
                walk(pass, obj, type, depth);
            } catch (...) {
                // Reads that threw while showing threw again and were skipped the same way.
            }
        }
    } const unmark{Pass{ctx, true}, obj, type, depth};
    walk(Pass{ctx, false}, obj, type, depth);
}

} // namespace Oru
