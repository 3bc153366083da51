// The code of doc/migration/libuv.md.
#include <uv.h>

#include <cstdio>

#include "Brelo/Platform.h"
#include "Brelo/TaskScheduler.h"
#include "BreloDaemon/WorkerPool.h"
#include "MigrationSnippets.h"

using namespace BreloDaemon;

namespace {

long heavy(long n) {
  long sum = 0;
  for (long i = 0; i < n; ++i)
    sum += i % 7;
  return sum;
}

// Work on another thread, and its result on the loop, with libuv.
void before() {
  struct Job {
    uv_work_t request;
    long result = 0;
  } job;
  uv_loop_t loop;
  uv_loop_init(&loop);
  job.request.data = &job;
  uv_queue_work(
      &loop, &job.request,
      [](uv_work_t* request) { static_cast<Job*>(request->data)->result = heavy(1000); },
      [](uv_work_t* request, int) {
        std::printf("result %ld\n", static_cast<Job*>(request->data)->result);
      });
  uv_run(&loop, UV_RUN_DEFAULT);
  uv_loop_close(&loop);
}

// The same here; what the work throws comes out of `get()`.
void after() {
  auto const root = Brelo::schedulerRootBrelo();
  WorkerPool pool(root, Brelo::TaskPriority::normal, "pool", 4, 100);
  pool.submit([] { return heavy(1000); },
              [](Outcome<long>&& outcome) {
                std::printf("result %ld\n", outcome.get());
                Brelo::Platform::stopEventLoop();
              });
  Brelo::Platform::doEventLoop();
}

}  // namespace

void fromLibuv() {
  before();
  after();
}
