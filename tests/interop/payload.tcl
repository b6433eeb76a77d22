# A payload written in pieces comes back byte for byte, in pages of any size.

source [file join [file dirname [info script]] harness.tcl]

# The lengths of the pages of a payload, and all of its bytes; pageSize ""
# leaves the default.
proc readBack {service record pageSize} {
  set status [call $service getCollectionData $record "" iterator]
  if {$status ne "DS_SUCCESS"} { error "getCollectionData answered $status" }
  if {$pageSize ne ""} { call $iterator pageSize $pageSize }
  set pages [pagesOf $iterator]
  set after [call $iterator getNextPage]
  same "past its end, page size \"$pageSize\", the iterator answers empty pages" $after ""
  releaseIterator $iterator
  return [list [lmap page $pages {string length $page}] [join $pages ""]]
}

# The page lengths that length bytes must be given in.
proc lengths {length pageSize} {
  set result [lrepeat [expr {$length / $pageSize}] $pageSize]
  if {$length % $pageSize} { lappend result [expr {$length % $pageSize}] }
  return $result
}

main {
  set service [startService tqmaster]

  # 20 bytes, as an operator would read them.
  set twenty [record alpha pieces]
  same "four pieces are stored" [store $service $twenty "<it" "em>0123" "" "456</item>"] DS_SUCCESS
  lassign [readBack $service $twenty ""] sizes content
  same "the default page holds 8 bytes" $sizes "8 8 4"
  same "the pieces come back joined" $content "<item>0123456</item>"

  # Every value that a byte can have, more than once.
  set bytes ""
  for {set i 0} {$i < 777} {incr i} { append bytes [binary format c [expr {$i % 256}]] }
  set binary [record beta bytes]
  same "binary pieces are stored" \
    [store $service $binary [string range $bytes 0 99] [string range $bytes 100 end]] DS_SUCCESS
  foreach pageSize {1 7 8 64 100000} {
    lassign [readBack $service $binary $pageSize] sizes content
    same "pages of $pageSize have their lengths" $sizes [lengths 777 $pageSize]
    holds "pages of $pageSize carry the bytes unchanged" {$content eq $bytes}
  }

  # More than one fragment of the transport.
  set large [string repeat $bytes 400]
  set length [string length $large]
  same "a large piece is stored" [store $service [record gamma large] $large] DS_SUCCESS
  lassign [readBack $service [record gamma large] 100000] sizes content
  same "a large payload fills its pages" $sizes [lengths $length 100000]
  holds "a large payload is unchanged" {$content eq $large}

  same "nothing written is stored" [store $service [record delta nothing]] DS_SUCCESS
  same "an empty payload has no page" [readBack $service [record delta nothing] ""] {{} {}}

  call $service getCollectionData $twenty "" iterator
  same "the page size is 8 at first" [call $iterator pageSize] 8
  foreach pageSize {0 -1} {
    call $iterator pageSize $pageSize
    same "the page size reads back as $pageSize" [call $iterator pageSize] $pageSize
    same "a page of size $pageSize is empty" [call $iterator getNextPage] ""
  }
  call $iterator pageSize 5
  same "an iterator goes on after pages of no size" [call $iterator getNextPage] "<item"
  call $iterator pageSize 100
  same "the size may change between pages" [call $iterator getNextPage] ">0123456</item>"
  releaseIterator $iterator

  # Visible at close, not before; unchanged until then.
  call $service putCollection [record omega late] writer
  call $writer put "new"
  same "what is not closed is not found" \
    [call $service getCollectionData [record omega late] "" iterator] DS_NONE_FOUND
  same "and its iterator is nil" $iterator $NIL
  same "the close stores it" [statusOf [call $writer close]] DS_SUCCESS
  same "what is closed is read" [lindex [readBack $service [record omega late] 64] 1] "new"
  same "the same name is written again" [store $service [record omega late] "newer"] DS_SUCCESS
  same "and is replaced" [lindex [readBack $service [record omega late] 64] 1] "newer"
}
