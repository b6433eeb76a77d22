# A pull explorer that is registered from outside: the registration is kept,
# and its data is fetched from the host that it names.

source [file join [file dirname [info script]] harness.tcl]

proc registrations {service} {
  return [recordsOf $service DQ_DISCOVERY_DATA AT_REMOTEPULL "*" "*"]
}

main {
  # Two masters, each of itself, that know each other's address.
  set port [freePort 127.0.0.1 127.0.0.2]
  set service [startService tqmaster -port $port -hosts {tqowner 127.0.0.2}]
  set owner [startService tqowner -port $port -address 127.0.0.2]

  same "nothing is registered at first" [registrations $service] ""
  call $service registerExplorer tqowner DiscoveryService disks volume AT_EXTSRC 42
  holds "the log names it" {[logged tqmaster \
    "Registered explorer: tqowner DiscoveryService disks volume 42"]}

  # The registration, kept as a record.
  set found [registrations $service]
  same "one registration is kept" [llength $found] 1
  set one [lindex $found 0]
  foreach {member value} {queryType DQ_UNDEFINED subject disks authority volume
    authType AT_REMOTEPULL sourceHost tqmaster sourceServiceName DiscoveryService} {
    same "its $member" [dict get $one $member] $value
  }
  same "it is a configuration of a point in time" \
    [dict get $one attributes colType] CT_POINT_IN_TIME
  same "it has no discovery time" [dict get $one attributes discoveryTime] 0
  same "it opens" [call $service getCollectionData $one "" iterator] DS_SUCCESS
  set text [join [pagesOf $iterator] ""]
  releaseIterator $iterator
  set origin 3 ;# the place of AT_EXTSRC among the types
  set order -1
  foreach element [list "<SourceHost>tqowner</SourceHost>" \
    "<ServiceName>DiscoveryService</ServiceName>" "<Priority>42</Priority>" \
    "<OriginType>$origin</OriginType>"] {
    set place [string first $element $text]
    holds "it holds $element in its place" {$place > $order}
    set order $place
  }

  # Its data comes from the owner, unless the owner has none or is gone.
  set wanted [record disks volume authType AT_EXTSRC]
  same "the owner has nothing yet" \
    [call $service getCollectionData $wanted "" iterator] DS_OPEN_FAILED
  same "and no iterator comes" $iterator $NIL
  set payload "<disks>[string repeat "sda " 1000]</disks>"
  same "the owner's data is stored" [store $owner $wanted $payload] DS_SUCCESS
  same "now the data is there" [call $service getCollectionData $wanted "" iterator] DS_SUCCESS
  call $iterator pageSize 100000
  same "it is the owner's" [join [pagesOf $iterator] ""] $payload
  releaseIterator $iterator

  # On the wire it is a record without attributes. The registration itself is
  # told to those who ask for its type only.
  set found [recordsOf $service DQ_DISCOVERY_DATA AT_ANYANDALL disks volume]
  same "a query of any type leaves the registration out" \
    [lmap one $found {dict get $one authType}] AT_EXTSRC
  same "what is pulled has no attributes" [dict get [lindex $found 0] attributes] \
    {colType CT_CONFIGURATION colStorage CS_LOCALONLY priority 0 timeToLive 0 discoveryTime 0}
  same "nor its kind of query" [dict get [lindex $found 0] queryType] DQ_UNDEFINED

  # A stored record of the same names stands beside what is pulled.
  same "a record of the same names is stored" \
    [store $service [record disks volume] "<stored/>"] DS_SUCCESS
  same "any type is now too many to open" \
    [call $service getCollectionData [record disks volume authType AT_ANYANDALL] "" iterator] \
    DS_LOGIC_ERROR

  # Equal and higher priorities replace a registration, lower ones do not.
  foreach {priority kept} {41 42 42 42 43 43 -1 4294967295} {
    call $service registerExplorer tqowner DiscoveryService disks volume AT_EXTSRC $priority
    set found [registrations $service]
    same "after priority $priority there is one registration" [llength $found] 1
    call $service getCollectionData [lindex $found 0] "" iterator
    call $iterator pageSize 100000
    set text [join [pagesOf $iterator] ""]
    releaseIterator $iterator
    holds "after priority $priority it has priority $kept" \
      {[string first "<Priority>$kept</Priority>" $text] >= 0}
  }

  same "the owner ends" [expr {[call $owner terminate] ? [awaitEnd tqowner] : "refused"}] 0
  same "its data cannot be opened any more" \
    [call $service getCollectionData $wanted "" iterator] DS_OPEN_FAILED
  holds "the log says why" {[logged tqmaster "Failed to connect to discovery service"]}
}
