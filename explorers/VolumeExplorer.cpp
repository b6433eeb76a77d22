#include "explorers/VolumeExplorer.h"

#include "discovery/DiscoveryLog.h"
#include "discovery/FilterParameters.h"
#include "discovery/ExplorerPayload.h"

#include <array>
#include <exception>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

namespace
{

constexpr char SOURCE[] = "VolumeExplorer";

using Type = OzfQuery::Type;
using Value = std::optional<std::string>;

Value parts(Volume const& volume)
{
  std::string text;
  for (auto const& part : volume.parts)
    text += (text.empty() ? "" : " ") + part;
  return known(text);
}

constexpr std::array<Fact<Volume>, 20> FACTS = {{
    {"Path", Type::TEXT, "The device's path",
     [](Volume const& volume) -> Value { return known(volume.path); }},
    {"Kind", Type::TEXT, "disk, partition, mapped, raid, loop or memory",
     [](Volume const& volume) -> Value { return known(volume.kind); }},
    {"Parent", Type::TEXT, "Of a partition: the disk",
     [](Volume const& volume) -> Value { return known(volume.parent); }},
    {"Parts", Type::TEXT, "The devices that it is put together from", parts},
    {"MapName", Type::TEXT, "Of a mapped device: its name",
     [](Volume const& volume) -> Value { return known(volume.mapName); }},
    {"Size", Type::SIZE, "The capacity",
     [](Volume const& volume) -> Value { return known(volume.size); }},
    {"Start", Type::SIZE, "Of a partition: the distance from the beginning of the disk",
     [](Volume const& volume) -> Value { return known(volume.start); }},
    {"Number", Type::NUMBER, "Of a partition: its number",
     [](Volume const& volume) -> Value { return known(volume.number); }},
    {"SectorSize", Type::SIZE, "The size of a sector",
     [](Volume const& volume) -> Value { return known(volume.sectorSize); }},
    {"ReadOnly", Type::BOOLEAN, "Whether it cannot be written",
     [](Volume const& volume) -> Value { return known(volume.readOnly); }},
    {"Removable", Type::BOOLEAN, "Whether its medium can be taken out",
     [](Volume const& volume) -> Value { return known(volume.removable); }},
    {"Rotational", Type::BOOLEAN, "Whether it has rotating parts",
     [](Volume const& volume) -> Value { return known(volume.rotational); }},
    {"Content", Type::TEXT, "What is on it: the type of a file system or of another use",
     [](Volume const& volume) -> Value { return known(volume.content); }},
    {"Uuid", Type::TEXT, "The identifier of what is on it",
     [](Volume const& volume) -> Value { return known(volume.uuid); }},
    {"Label", Type::TEXT, "The label of what is on it",
     [](Volume const& volume) -> Value { return known(volume.label); }},
    {"PartitionUuid", Type::TEXT, "Of a partition: its identifier",
     [](Volume const& volume) -> Value { return known(volume.partitionUuid); }},
    {"PartitionLabel", Type::TEXT, "Of a partition: its label",
     [](Volume const& volume) -> Value { return known(volume.partitionLabel); }},
    {"Vendor", Type::TEXT, "The disk's vendor",
     [](Volume const& volume) -> Value { return known(volume.vendor); }},
    {"Model", Type::TEXT, "The disk's model",
     [](Volume const& volume) -> Value { return known(volume.model); }},
    {"Serial", Type::TEXT, "The disk's serial number",
     [](Volume const& volume) -> Value { return known(volume.serial); }},
}};

} // namespace

Facts<Volume> volumeFacts() { return FACTS; }

std::vector<Volume> selectVolumes(std::vector<Volume> all, char const* filterText)
{
  constexpr char const* OPERATION = "selectVolumes";
  if (filterText == nullptr || *filterText == '\0')
    return all;

  FilterParameters const parameters(filterText);
  if (!parameters.lastError().empty())
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Ignoring filter parameters that cannot be read: " << parameters.lastError());
    return all;
  }
  auto const query = describeFacts(volumeFacts());
  if (parameters.setQuery(*query) != OzfQuery::QUERY_OK)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Ignoring a query that cannot be understood: " << query->lastError());
    return all;
  }
  std::erase_if(all,
                [&](Volume const& volume)
                {
                  return !query->evaluate([&](std::string_view name)
                                          { return valueOf(volumeFacts(), volume, name); });
                });
  return all;
}

VolumeExplorer::VolumeExplorer(std::string root) : m_root(std::move(root)) {}

bool VolumeExplorer::collectionRequested(DiscoveryQuery query, Authority const&, Subject const&,
                                         AutoDereference<OZFRefCounted>&, char const* filterText,
                                         CollectionData* target)
{
  constexpr char const* OPERATION = "VolumeExplorer::collectionRequested";
  try
  {
    std::string document;
    if (query == DQ_FILTER_DATA)
      document = filterDocument(volumeFacts());
    else
    {
      DiscoveredItems items(*this);
      for (auto const& volume : selectVolumes(collectVolumes(m_root), filterText))
        items.addItem(volume.path, volumeFacts(), volume);
      document = items.finish();
    }
    if (target != nullptr && target->open(OM_UPDATE, "") != 0 &&
        target->writeCollection(document.size(), document.data()) != 0)
      return true;
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Explorer " << getExplorerName() << " cannot write its collection");
  }
  catch (std::exception const& exception)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Explorer " << getExplorerName() << " failed: " << exception.what());
  }
  catch (...)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Explorer " << getExplorerName() << " failed");
  }
  return false;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
