# The benchmarks' row for Cap'n Proto. IPv4 addresses are plain numbers, the cheapest form.
@0xb6a1d3f2c4e59701;

using Cxx = import "/capnp/c++.capnp";
$Cxx.namespace("bench::capnproto");

struct Link {
  number @0 :UInt32;
  name @1 :Text;
}

struct Row {
  id @0 :UInt32;
  counter @1 :UInt64;
  up @2 :Bool;
  name8 @3 :Text;
  name24 @4 :Text;
  name60 @5 :Text;
  address @6 :UInt32;
  prefixAddress @7 :UInt32;
  prefixLength @8 :UInt8;
  tags @9 :List(Text);
  link @10 :Link;
}
