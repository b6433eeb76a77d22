# The wire contract as this client knows it, written by hand in the form in
# which Combat keeps types: no generated code and no repository is behind it,
# so what the service sends must agree with these lines. A servant can be
# written on them as well as a client.

namespace eval types {
  variable MODULE IDL:Quillon/Tessarine/Ozf/DiscoverySvc
  variable REMOTE $MODULE/Remote

  # An entry's names: {repository id, name, version}.
  proc id {scope name} { return [list $scope/$name:1.0 $name 1.0] }

  # An operation of an interface of the inner module.
  proc operation {interface name result parameters} {
    variable REMOTE
    return [list operation [id $REMOTE/$interface $name] $result $parameters {}]
  }

  # Both iterators have the same three members; only the page differs.
  proc pagedIterator {name page} {
    variable REMOTE
    return [list interface [id $REMOTE $name] {} [list \
      [list attribute [id $REMOTE/$name pageSize] long] \
      [operation $name getNextPage $REMOTE/$page:1.0 {}] \
      [operation $name release void {}]]]
  }

  proc enumerations {} {
    variable MODULE
    set entries {}
    foreach {name values} {
      AuthorityType {AT_ANYANDALL AT_TQUSERVER AT_TQUCLIENT AT_EXTSRC AT_REMOTEPULL}
      CollectionType {CT_CONFIGURATION CT_REAL_TIME CT_POINT_IN_TIME}
      CollectionStorage {CS_LOCALONLY CS_CENTRALREPOSITORY}
      DiscoveryStatus {
        DS_SUCCESS DS_NONE_FOUND DS_LOGIC_ERROR DS_OPEN_FAILED DS_COM_ERROR DS_DATA_EXISTS
      }
      DiscoveryQuery {DQ_UNDEFINED DQ_DISCOVERY_DATA DQ_FILTER_DATA}
    } {
      lappend entries [list enum [id $MODULE $name] [list {*}$values]]
    }
    return $entries
  }

  proc records {} {
    variable MODULE
    variable REMOTE
    return [list \
      [list struct [id $REMOTE CollAttributes] [list \
        [list colType $MODULE/CollectionType:1.0] \
        [list colStorage $MODULE/CollectionStorage:1.0] \
        {priority long} \
        {timeToLive {unsigned long long}} \
        {discoveryTime {unsigned long long}}] {}] \
      [list struct [id $REMOTE Discovery] [list \
        [list queryType $MODULE/DiscoveryQuery:1.0] \
        {subject string} \
        {authority string} \
        [list authType $MODULE/AuthorityType:1.0] \
        [list attributes $REMOTE/CollAttributes:1.0] \
        {sourceHost string} \
        {sourceServiceName string}] {}] \
      [list typedef [id $REMOTE DiscoverySeq] [list sequence $REMOTE/Discovery:1.0]] \
      [list typedef [id $REMOTE CollectionDataSeq] {sequence octet}]]
  }

  proc writer {} {
    variable MODULE
    variable REMOTE
    return [list interface [id $REMOTE RemoteWriter] {} [list \
      [operation RemoteWriter put boolean [list [list in data $REMOTE/CollectionDataSeq:1.0]]] \
      [operation RemoteWriter close $MODULE/DiscoveryResult:1.0 {}]]]
  }

  proc service {} {
    variable MODULE
    variable REMOTE
    set query $MODULE/DiscoveryQuery:1.0
    set type $MODULE/AuthorityType:1.0
    set record $REMOTE/Discovery:1.0
    return [list interface [id $REMOTE DiscoveryService] {} [list \
      [operation DiscoveryService queryDiscoveries $REMOTE/DiscoveryIterator:1.0 [list \
        [list in queryType $query] [list in authType $type] \
        {in subject string} {in authority string}]] \
      [operation DiscoveryService getCollectionData $MODULE/DiscoveryStatus:1.0 [list \
        [list in record $record] {in filter string} \
        [list out iterator $REMOTE/CollectionDataIterator:1.0]]] \
      [operation DiscoveryService putCollection $MODULE/DiscoveryResult:1.0 [list \
        [list in record $record] [list out writer $REMOTE/RemoteWriter:1.0]]] \
      [operation DiscoveryService registerExplorer void [list \
        {in sourceHost string} {in sourceServiceName string} \
        {in subject string} {in authority string} \
        [list in authType $type] {in priority short}]] \
      [operation DiscoveryService terminate boolean {}] \
      [operation DiscoveryService restartLocalPushTimer void {}] \
      [operation DiscoveryService restartAllPushTimers boolean {}]]]
  }

  # Makes everything known to Combat; once a process.
  proc add {} {
    variable MODULE
    variable REMOTE
    set result [list struct [id $MODULE DiscoveryResult] [list \
      [list discStatus $MODULE/DiscoveryStatus:1.0] \
      {retryInterval {unsigned long long}}] {}]
    combat::ir add [concat [enumerations] [list $result] [records] [list \
      [pagedIterator DiscoveryIterator DiscoverySeq] \
      [pagedIterator CollectionDataIterator CollectionDataSeq] \
      [writer] [service]]]
  }
}
