// Begins to write discoveries on a remote service and never ends: says
// "writing" when each has got its first chunk, and waits to be killed. With
// "asking" instead of a number, asks without end and waits for no answer to
// finish before it is killed.
//
// Usage: remote_writer <product root> <host> <number of writes> | asking

#include "tests/support/RemoteClient.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vector>

int main(int argc, char** argv)
{
  using namespace tqtest::client;
  if (argc != 4)
    return 2;
  try
  {
    Client client(argv[1], argv[2]);
    if (!client.connected())
      return 1;
    if (argv[3] == std::string("asking"))
    {
      std::puts("asking");
      std::fflush(stdout);
      for (;;)
        client.subjects();
    }
    std::vector<Remote::RemoteWriter_var> writers;
    for (int i = 0; i < std::atoi(argv[3]); ++i)
    {
      Remote::RemoteWriter_var writer;
      auto const record = makeRecord("dying" + std::to_string(i), "writer");
      if (client->putCollection(record, writer.out()).discStatus != DS_SUCCESS ||
          !writer->put(makeChunk(std::string(1024, 'x'))))
        return 1;
      writers.push_back(writer);
    }
    std::puts("writing");
    std::fflush(stdout);
    for (;;)
      pause();
  }
  catch (CORBA::Exception const& exception)
  {
    std::fprintf(stderr, "%s\n", exception._name());
    return 1;
  }
}
