@0x97624e68a5b583ab;

using Cxx = import "/capnp/c++.capnp";
$Cxx.namespace("bench::rpc");

interface Exchange {
    ask @0 (message :Data) -> (answer :Data);
    tell @1 (message :Data) -> stream;
}
