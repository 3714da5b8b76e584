// The generic state dump: what it writes of an object graph, what it follows, and where it stops.
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "Oru/DumpContext.h"
#include "Oru/WeakRef.h"
#include "Termout/DumpStateWriterCallback.h"
#include "Wex/Collection.h"
#include "Wex/Type.h"
#include "support/TempFile.h"

namespace {

// A graph node: a plain value, a getter the test scripts, a held child, a marked back pointer and keyed members.
class Node : public Wex::PtrInterface {
public:
    explicit Node(Lumo::String n) : name(std::move(n)) {}
    Wex::WexType const* fwkType() const noexcept override { return Wex::wexTypeOf<Node>(); }

    Lumo::String const& key() const noexcept { return name; }

    Lumo::String name;
    std::function<int()> probe;
    Lumo::Ptr<Node> child;
    Node const* parent = nullptr;
    Wex::Collection<Lumo::String, Lumo::Ptr<Node>, Wex::MemberKey<&Node::key>> members{"members", 1};
};

// Counted, but of no type the dump knows.
class Opaque : public Wex::PtrInterface {};

Wex::WexModuleRegistrar registrar("tests/Dump", [](Wex::WexModule& m) {
    m.type<Node>("DumpTest::Node")
        .readOnly("name", [](Node const& n) { return n.name; })
        .readOnly("probe", [](Node const& n) { return n.probe ? n.probe() : 0; })
        .operation("poke", {}, [](Node&, Wex::Args const&) {})
        .hidden("secret", Wex::AttrKind::attribute)
        .readOnly("child", [](Node const& n) { return n.child; })
        .readOnly("parent", [](Node const& n) { return Oru::WeakRef(n.parent); })
        .collection("members", [](Node const& n) -> auto const& { return n.members; });
});

Lumo::Ptr<Node> node(char const* name) { return Lumo::Ptr<Node>(new Node(name)); }
std::string addr(Wex::PtrInterface const* p) { return fmt::format("{}", static_cast<void const*>(p)); }

// Each call shows every object once; a walk opened from a getter through the same context shares the
// set of the walk under way, also after it returns.
TEST(DumpTest, AGraphIsWrittenInTableOrderWithEachObjectOnceInEveryCall) {
    TempFile file;
    Lumo::Ptr<Oru::DumpContext> const ctx(new Oru::DumpContext(file.fd(), nullptr, 3));
    Lumo::Ptr<Node> const root = node("root"), kid = node("kid"), member = node("member");
    root->child = kid;
    root->members.set(member);
    root->members.set(kid);
    root->probe = []() -> int { throw 42; };
    kid->parent = root.ptr();
    kid->probe = [&] {
        Oru::Impl::doObjDumpChildPtrGeneric(root, nullptr, *ctx, 2);
        return 0;
    };
    member->child = kid;
    member->probe = []() -> int { throw std::runtime_error("sensor unplugged"); };
    // The whole text but for kid's back pointer to root; a read that throws leaves the rest.
    auto const expected = [&](std::string const& kidParent) {
        return fmt::format("{0} (DumpTest::Node)\n"
                           "  name: 'root'\n"
                           "  probe: <error: non-standard exception>\n"
                           "  child: {1} (DumpTest::Node)\n"
                           "    name: 'kid'\n"
                           "    ^{0} (DumpTest::Node, already shown)\n"
                           "    probe: 0\n"
                           "    child: null\n"
                           "    parent: {3}\n"
                           "    members: 0\n"
                           "  parent: null\n"
                           "  members: 2\n"
                           "    'member' -> {2} (DumpTest::Node)\n"
                           "      name: 'member'\n"
                           "      probe: <error: sensor unplugged>\n"
                           "      child: ^{1} (DumpTest::Node, already shown)\n"
                           "      parent: null\n"
                           "      members: 0\n"
                           "    'kid' -> ^{1} (DumpTest::Node, already shown)\n",
                           addr(root.ptr()), addr(kid.ptr()), addr(member.ptr()), kidParent);
    };
    ctx->visitedIs(member.ptr());  // outside any walk: forgotten when one starts
    Oru::dumpObject(root, *ctx);
    ctx->flush();
    EXPECT_EQ(file.fresh(), expected(fmt::format("^{} (DumpTest::Node, already shown)", addr(root.ptr()))));

    // Again through the same context, now into a writer's buffer and leaving back pointers as addresses.
    Lumo::Ptr<Termout::NonBlockingCliTxnBuffer> const buffer(new Termout::NonBlockingCliTxnBuffer(file.fd()));
    Lumo::Ptr<Termout::DumpStateWriterCallback> const writer(new Termout::DumpStateWriterCallback(buffer));
    writer->hasNotificationActiveIs(true);
    ctx->writerIs(writer);
    ctx->followWeakReferencesIs(false);
    Oru::dumpObject(root, *ctx);
    EXPECT_EQ(file.fresh(), "");
    ctx->flush();
    EXPECT_EQ(file.fresh(), expected(addr(root.ptr())));

    // The writer flushes as it is switched off.
    Oru::dumpObject(ctx, *ctx);
    writer->hasNotificationActiveIs(false);
    EXPECT_EQ(file.fresh(), fmt::format("{} (Oru::DumpContext)\n  fd: {}\n  level: 3\n  followWeakReferences: false\n"
                                        "  objectsShown: 8\n", addr(ctx.ptr()), file.fd()));

    // What cannot be walked is said in one line, through the context's own buffer again.
    ctx->writerIs(nullptr);
    Lumo::Ptr<Opaque> const opaque(new Opaque);
    Oru::dumpObject(nullptr, *ctx);
    Oru::dumpObject(opaque, *ctx);
    Oru::Impl::doObjDumpChildPtrGeneric(nullptr, nullptr, *ctx, 0);
    Oru::Impl::doObjDumpChildPtrGeneric(root, Wex::wexTypeOf<Oru::DumpContext>(), *ctx, 1);
    ctx->flush();
    EXPECT_EQ(file.fresh(), fmt::format("null\n{} (no type)\n  <no type table>\n"
                                        "  <error: Oru::DumpContext.: object is not of this type>\n",
                                        addr(opaque.ptr())));
    EXPECT_EQ(ctx->objectsShown(), 8u);
    EXPECT_THROW(Lumo::Ptr<Oru::DumpContext>(new Oru::DumpContext(-2, nullptr, 0)), Wex::RangeException);
}

TEST(DumpTest, TheWalkStopsAtTheLevelOfTheContextOrAtTheDepthLimit) {
    unsigned const limit = Oru::DumpContext::kDepthLimit;
    std::vector<Lumo::Ptr<Node>> chain{node("n")};
    while (chain.size() < limit + 2) chain.push_back(chain.back()->child = node("n"));
    for (auto const& [level, deepest] :
         std::vector<std::pair<unsigned, unsigned>>{{0, limit}, {3, 3}, {limit + 1, limit}}) {
        TempFile file;
        // The context goes at the end of the statement, handing what it holds to the file.
        Oru::Impl::doObjDumpChildPtrGeneric(
            chain[0], nullptr, Lumo::Ptr<Oru::DumpContext>(new Oru::DumpContext(file.fd(), nullptr, level)), 0);
        EXPECT_NE(file.contents().find(fmt::format("\n{:{}}child: {} (DumpTest::Node, not shown: depth limit)\n", "",
                                                   2 * deepest, addr(chain[deepest + 1].ptr()))),
                  std::string::npos) << level;
    }
}

} // namespace
