#include "discovery/ExplorerTrial.h"

#include "discovery/ExplorerPayload.h"
#include "discovery/TimedExplorer.h"
#include "tests/support/FakeExplorers.h"
#include "tests/support/LogCapture.h"

#include <gmock/gmock.h>

#include <functional>
#include <stdexcept>

namespace
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

struct Disk
{
  std::string size;
};

constexpr Fact<Disk> DISK_FACTS[] = {
    {"Size", OzfQuery::Type::SIZE, "", [](Disk const& disk) { return known(disk.size); }}};

// Stores what the test says.
class TriedExplorer : public TimedExplorer
{
public:
  using Run = std::function<DiscoveryStatus(TriedExplorer const&, Authority const&, Subject const&,
                                            CollectionAttributes const&, DiscoveryFactory const&)>;

  TriedExplorer() : TimedExplorer(300) {}
  char const* getExplorerName() const override { return "disks"; }

  static inline Run s_run;

protected:
  DiscoveryStatus run(Authority const& authority, Subject const& subject,
                      CollectionAttributes const& attributes,
                      DiscoveryFactory const& factory) override
  {
    return s_run(*this, authority, subject, attributes, factory);
  }
};

class TriedPull : public virtual ExplorerPull
{
public:
  char const* getExplorerName() const override { return "volumes"; }
  bool collectionRequested(DiscoveryQuery, Authority const&, Subject const&,
                           AutoDereference<OZFRefCounted>&, char const* filter,
                           CollectionData* target) override
  {
    s_filter = filter;
    if (s_produces)
    {
      DiscoveredItems items(*this);
      items.addItem("sda", Facts<Disk>(DISK_FACTS), Disk{"1"});
      std::string const text = items.finish();
      target->writeCollection(text.size(), text.data());
    }
    return s_produces;
  }

  static inline bool s_produces = true;
  static inline std::string s_filter;
};

void registerPush(DiscoveryRepository* repository)
{
  AutoDereference<ExplorerPush> const explorer(new TriedExplorer);
  repository->registerExplorer(new Subject("web1"), explorer.get(), 10,
                               new Authority("disks", AT_TQUCLIENT));
}

void registerPull(DiscoveryRepository* repository)
{
  AutoDereference<ExplorerPull> const explorer(new TriedPull);
  repository->registerExplorer(new Subject("web1"), explorer.get(), 10,
                               new Authority("volumes", AT_TQUCLIENT), false);
}

// Explorers of the test's own, under the subject "web1" and their names.
AutoDereference<tqtest::FakePush> fakePush;
AutoDereference<tqtest::FakePull> fakePull;

void registerFakes(DiscoveryRepository* repository)
{
  repository->registerExplorer(new Subject("web1"), fakePush.get(), 10,
                               new Authority(fakePush->getExplorerName(), AT_TQUCLIENT));
  repository->registerExplorer(new Subject("web1"), fakePull.get(), 10,
                               new Authority(fakePull->getExplorerName(), AT_TQUCLIENT), false);
}

// Of every kind there is, as text.
struct Anything
{
  std::map<std::string, std::string> values;
};

using Kind = OzfQuery::Type;
constexpr Fact<Anything> KIND_FACTS[] = {
    {"Count", Kind::NUMBER, "", [](Anything const& one) { return known(one.values.at("Count")); }},
    {"Took", Kind::DURATION, "", [](Anything const& one) { return known(one.values.at("Took")); }},
    {"Up", Kind::BOOLEAN, "", [](Anything const& one) { return known(one.values.at("Up")); }},
    {"Made", Kind::TIME, "", [](Anything const& one) { return known(one.values.at("Made")); }},
    {"Note", Kind::TEXT, "", [](Anything const& one) { return known(one.values.at("Note")); }}};

void registerNothing(DiscoveryRepository*) {}

struct ExplorerTrialTest : testing::Test
{
  LogCapture log;

  // The mistakes of a run that does so.
  static std::vector<std::string> mistakesOf(TriedExplorer::Run run)
  {
    TriedExplorer::s_run = std::move(run);
    ExplorerTrial trial(registerPush);
    trial.run();
    return trial.mistakes();
  }

  // Stores disks of these sizes, and what can be asked for.
  static TriedExplorer::Run storing(std::vector<std::string> sizes)
  {
    return
        [sizes = std::move(sizes)](auto const& explorer, auto const& authority, auto const& subject,
                                   auto const& attributes, auto const& factory)
    {
      DiscoveredItems items(explorer);
      for (std::string const& size : sizes)
        items.addItem("sd" + size, Facts<Disk>(DISK_FACTS), Disk{size});
      return storeWithFilters(factory, subject, authority, attributes, items.finish(),
                              filterDocument(Facts<Disk>(DISK_FACTS)), "test");
    };
  }

  static TriedExplorer::Run storingText(std::string document)
  {
    return [document = std::move(document)](auto const&, auto const& authority, auto const& subject,
                                            auto const& attributes, auto const& factory)
    { return store(factory, DQ_DISCOVERY_DATA, subject, authority, attributes, document, "test"); };
  }
};

TEST_F(ExplorerTrialTest, whatIsStoredIsThereAsAReaderGetsIt)
{
  TriedExplorer::s_run = storing({"4096", "1"});
  ExplorerTrial trial(registerPush);
  trial.run();
  EXPECT_THAT(trial.mistakes(), IsEmpty());
  ASSERT_THAT(trial.records(), SizeIs(2));
  TrialRecord const* const data = trial.data("disks");
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(data->subject, "web1");
  EXPECT_EQ(data->type, AT_TQUCLIENT);
  EXPECT_EQ(data->priority, 10U);
  EXPECT_TRUE(data->complete);
  ASSERT_THAT(data->items, SizeIs(2));
  EXPECT_EQ(data->items[0]["Size"].bytes(), 4096U);
  EXPECT_THAT(data->document, HasSubstr("<Size>4096</Size>"));
  TrialRecord const* const filters = trial.filters("disks");
  ASSERT_NE(filters, nullptr);
  EXPECT_EQ(filters->type, AT_EXTSRC);
  ASSERT_THAT(filters->attributes, SizeIs(1));
  EXPECT_EQ(trial.data("nothing"), nullptr);
  trial.run();
  EXPECT_THAT(trial.records(), SizeIs(2)) << "a run begins anew";
}

TEST_F(ExplorerTrialTest, aPullExplorerIsGivenTheQuery)
{
  ExplorerTrial trial(registerPull);
  trial.run("size > 10G");
  EXPECT_THAT(trial.mistakes(), IsEmpty());
  EXPECT_THAT(TriedPull::s_filter, HasSubstr("size &gt; 10G"));
  ASSERT_NE(trial.data("volumes"), nullptr);
  EXPECT_EQ(trial.data("volumes")->items.at(0).name(), "sda");

  TriedPull::s_produces = false;
  trial.run();
  EXPECT_THAT(trial.mistakes(), ElementsAre("The explorer volumes produced nothing"));
  TriedPull::s_produces = true;
  trial.run();
  EXPECT_THAT(trial.mistakes(), IsEmpty()) << "a run begins anew";
}

TEST_F(ExplorerTrialTest, explorersAreStartedRunAndStoppedAsByAService)
{
  tqtest::CallList calls;
  fakePush.reset(new tqtest::FakePush("push", &calls));
  fakePull.reset(new tqtest::FakePull("pull", &calls, "<DiscoveredItems/>"));
  OzfObjTime const before = OzfObjTime::now();
  fakePush->onExplore =
      [&](auto const& authority, auto const& subject, auto const& attributes, auto* factory, auto&)
  {
    EXPECT_TRUE(fakePush->getLastExplorationTime() >= before);
    EXPECT_EQ(attributes.getPriority(), 10U);
    for (char const* const text : {"<DiscoveredItems/>", "<DiscoveredItems></DiscoveredItems>"})
      store(*factory, DQ_DISCOVERY_DATA, subject, authority, attributes, text, "test");
  };
  ExplorerTrial trial(registerFakes);
  EXPECT_THAT(calls.names(), IsEmpty());
  trial.run();
  EXPECT_THAT(trial.mistakes(), IsEmpty());
  EXPECT_THAT(calls.names(), ElementsAre("start push", "start pull", "explore push", "collect pull",
                                         "stop push", "stop pull"));
  EXPECT_THAT(trial.records(), SizeIs(3));
  ASSERT_NE(trial.data("push"), nullptr);
  EXPECT_EQ(trial.data("push")->document, "<DiscoveredItems></DiscoveredItems>") << "the last";
}

TEST_F(ExplorerTrialTest, whatIsThrownIsTold)
{
  struct VolumesThatThrow : TriedPull
  {
    bool collectionRequested(DiscoveryQuery, Authority const&, Subject const&,
                             AutoDereference<OZFRefCounted>&, char const*, CollectionData*) override
    {
      throw std::runtime_error("no volume");
    }
  };
  fakePush.reset(new tqtest::FakePush("push"));
  fakePush->onExplore = [](auto const&...) { throw std::runtime_error("no disk"); };
  ExplorerTrial trial(
      [](DiscoveryRepository* repository)
      {
        repository->registerExplorer(new Subject("web1"), fakePush.get(), 10,
                                     new Authority("push", AT_TQUCLIENT));
        AutoDereference<ExplorerPull> const thrower(new VolumesThatThrow);
        repository->registerExplorer(new Subject("web1"), thrower.get(), 10,
                                     new Authority("volumes", AT_TQUCLIENT), false);
      });
  trial.run();
  EXPECT_THAT(trial.mistakes(), ElementsAre("The explorer push threw an exception: no disk",
                                            "The explorer volumes threw an exception: no volume"));
  EXPECT_THAT(trial.records(), IsEmpty());
}

TEST_F(ExplorerTrialTest, eachValueIsHeldAgainstItsKind)
{
  std::map<std::string, std::string> const right{{"Count", "7"},
                                                 {"Took", "1.5"},
                                                 {"Up", "true"},
                                                 {"Made", "2026-01-01T10:00:00Z"},
                                                 {"Note", "anything"}};
  auto const mistakesWith = [&right](std::string const& name, std::string const& value)
  {
    Anything one{right};
    one.values[name] = value;
    return mistakesOf(
        [one](auto const& explorer, auto const& authority, auto const& subject,
              auto const& attributes, auto const& factory)
        {
          DiscoveredItems items(explorer);
          items.addItem("a", Facts<Anything>(KIND_FACTS), one);
          return storeWithFilters(factory, subject, authority, attributes, items.finish(),
                                  filterDocument(Facts<Anything>(KIND_FACTS)), "test");
        });
  };
  EXPECT_THAT(mistakesWith("Note", "other"), IsEmpty());
  for (char const* const name : {"Count", "Took", "Up", "Made"})
    EXPECT_THAT(mistakesWith(name, "strange"),
                ElementsAre("The discovery of disks: the item a has the fact " + std::string(name) +
                            ", which is not of the kind that is described: \"strange\""));
}

// What can be asked for of an explorer on demand is stored by another, under a name of its own.
TEST_F(ExplorerTrialTest, factsOnDemandAreHeldAgainstTheirFilterData)
{
  fakePush.reset(new tqtest::FakePush("volumes-filter"));
  fakePush->onExplore =
      [](auto const& authority, auto const& subject, auto const& attributes, auto* factory, auto&)
  {
    store(*factory, DQ_FILTER_DATA, subject, authority, attributes,
          filterDocument(Facts<Disk>(DISK_FACTS)), "test");
  };
  fakePull.reset(new tqtest::FakePull(
      "volumes", nullptr,
      "<DiscoveredItems><DISCOVERED Name=\"sda\"><ExplorerData Name=\"volumes\"><Size>large</Size>"
      "</ExplorerData></DISCOVERED></DiscoveredItems>"));
  ExplorerTrial trial(registerFakes);
  trial.run();
  EXPECT_THAT(trial.mistakes(),
              ElementsAre(HasSubstr("the item sda has the fact Size, which is not of the kind")));
}

TEST_F(ExplorerTrialTest, aRunThatFailsIsTold)
{
  EXPECT_THAT(mistakesOf([](auto const&...) { return DS_COM_ERROR; }),
              ElementsAre("The explorer disks reported a failure: communication failed"));
  EXPECT_THAT(mistakesOf([](auto const&...) { return DS_SUCCESS; }),
              ElementsAre("The explorer disks reported success and stored nothing"));
  EXPECT_THAT(
      mistakesOf([](auto const&...) -> DiscoveryStatus { throw std::runtime_error("no disk"); }),
      ElementsAre("The explorer disks reported a failure: internal error"));
  ExplorerTrial trial(registerNothing);
  trial.run();
  EXPECT_THAT(trial.mistakes(), ElementsAre("No explorer was registered"));
}

TEST_F(ExplorerTrialTest, aDocumentThatReadersStumbleOverIsTold)
{
  EXPECT_THAT(mistakesOf(storingText("<DiscoveredItems><DISCOVERED>")),
              ElementsAre("The discovery of disks cannot be read to its end"));
  EXPECT_THAT(
      mistakesOf(storingText("<DiscoveredItems><DISCOVERED Name=\"a\"/></DiscoveredItems>")),
      ElementsAre("The discovery of disks: the item a has no facts"));
  EXPECT_THAT(
      mistakesOf(storing({"large"})),
      ElementsAre("The discovery of disks: the item sdlarge has the fact Size, which is not of "
                  "the kind that is described: \"large\""));
}

TEST_F(ExplorerTrialTest, whatTakesThePlaceOfAnotherIsTold)
{
  EXPECT_THAT(mistakesOf(
                  [](auto const& explorer, auto const& authority, auto const& subject,
                     auto const& attributes, auto const& factory)
                  {
                    DiscoveredItems items(explorer);
                    items.addItem("a", Facts<Disk>(DISK_FACTS), Disk{"1"});
                    store(factory, DQ_DISCOVERY_DATA, subject, authority, attributes,
                          items.finish(), "test");
                    return store(factory, DQ_FILTER_DATA, subject, authority, attributes,
                                 filterDocument(Facts<Disk>(DISK_FACTS)), "test");
                  }),
              Contains(HasSubstr("takes the place of what was stored")));
}

} // namespace
