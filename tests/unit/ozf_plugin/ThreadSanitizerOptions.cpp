// ThreadSanitizer asks a program for what it shall not report. ACE's manager of
// libraries takes two locks of its own in both orders; the loader lets only one
// thread in, which the sanitizer's check of lock orders does not take into
// account. Data races are reported as ever.

extern "C" char const* __tsan_default_suppressions();

extern "C" __attribute__((visibility("default"))) char const* __tsan_default_suppressions()
{
  return "deadlock:ACE_OS::mutex_lock\n";
}
