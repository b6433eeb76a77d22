# Another ORB's client calls a service again and again over a connection on which
# what is said gets changed, and takes whatever comes back.
#
# Usage: other_orb.tcl <address> <port> <seconds> <seed>

lassign $argv address port seconds seed
source [file join [file dirname [info script]] .. interop harness.tcl]

set CALL_DEADLINE 3000
expr {srand($seed)}
types::add

proc below {limit} { return [expr {int(rand() * $limit)}] }

proc act {service} {
  set name o[below 8]
  switch [below 5] {
    0 - 1 { store $service [record $name mutated] [string repeat x [below 3000]] }
    2 {
      call $service getCollectionData [record $name mutated] "" iterator
      if {$iterator ne $::NIL} {
        pagesOf $iterator
        releaseIterator $iterator
      }
    }
    3 { recordsOf $service DQ_DISCOVERY_DATA AT_ANYANDALL "*" mutated }
    4 { call $service registerExplorer nowhere DiscoveryService $name mutated AT_EXTSRC 1 }
  }
}

# A client of that version; Combat asks for the interface first.
proc serviceOf {version} {
  set service [corba::string_to_object \
    corbaloc:iiop:$version@$::address:$::port/DiscoveryService]
  call $service _is_a $::SERVICE_ID
  return $service
}

set answered 0
set failed 0
set version 1.0
set end [expr {[clock seconds] + $seconds}]
while {[clock seconds] < $end} {
  # Each version in turn.
  set version [dict get {1.0 1.1 1.1 1.2 1.2 1.0} $version]
  if {[catch {act [serviceOf $version]}]} {
    incr failed
  } else {
    incr answered
  }
}
puts "$answered calls answered, $failed failed"
exit [expr {$answered == 0 ? 2 : 0}]
