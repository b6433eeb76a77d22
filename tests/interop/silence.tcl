# A host that takes connections and never answers: every call to it ends in its time,
# those included that Combat makes without one. Otherwise a client of this ORB would
# hang on an answer that is lost, which says nothing about who should have sent it.

source [file join [file dirname [info script]] harness.tcl]

set CALL_DEADLINE 500

main {
  set listening [socket -server {list} -myaddr 127.0.0.1 0]
  set port [lindex [fconfigure $listening -sockname] 2]
  set silent [corba::string_to_object corbaloc:iiop:1.2@127.0.0.1:$port/DiscoveryService]

  # Of an object whose type it does not know Combat asks for the interface first.
  raises "a call whose answer does not come" INTF_REPOS {call $silent terminate}
  foreach question [list [list _is_a $SERVICE_ID] _non_existent _get_interface] {
    raises "[lindex $question 0] of an object that does not answer" TIMEOUT \
      {call $silent {*}$question}
  }

  # The kernel takes its connections while this script waits for it.
  set script [file join [file dirname [info script]] .. torture other_orb.tcl]
  catch {exec timeout 30 [info nameofexecutable] $script 127.0.0.1 $port 1 1} said options
  same "the client of the hostile messages ends, and was answered nothing" \
    [lindex [dict get $options -errorcode] 2] 2
}
