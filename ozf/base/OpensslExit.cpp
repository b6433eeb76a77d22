// At the end of the process libcrypto would free what it keeps for threads, of all threads
// that have used it; one that ends just then frees the same once more. Nobody can wait for
// the ORB's threads until they have ended, so libcrypto is left as it is.
//
// Whoever uses libcrypto first decides it, hence when this library is loaded.

#include <openssl/crypto.h>

namespace
{

[[maybe_unused]] bool const IS_LEFT = OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr) == 1;

} // namespace
