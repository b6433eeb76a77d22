// Asks a service for the same collection from several threads at once, and says
// when all have their answers.
//
// Usage: collection_reader <product root> <host> <subject> <threads>

#include "tests/support/RemoteClient.h"

#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

int main(int argc, char** argv)
{
  using namespace tqtest::client;
  if (argc != 5)
    return 2;
  Client client(argv[1], argv[2]);
  if (!client.connected())
    return 1;
  std::vector<std::thread> readers;
  for (int i = 0; i < std::atoi(argv[4]); ++i)
    readers.emplace_back(
        [&]
        {
          try
          {
            Remote::Discovery record = makeRecord(argv[3], "volume");
            record.authType = AT_EXTSRC;
            Remote::CollectionDataIterator_var iterator;
            client->getCollectionData(record, "", iterator.out());
          }
          catch (CORBA::Exception const&)
          {
            // The time-out of the call, where nobody answered it.
          }
        });
  for (auto& reader : readers)
    reader.join();
  std::puts("answered");
}
