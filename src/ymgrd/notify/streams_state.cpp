#include "ymgrd/notify/streams_state.h"

#include "ymgrd/datastore/dbkey.h"
#include "ymgrd/datastore/ds_status.h"
#include "ymgrd/notify/event_store.h"
#include "ymgrd/notify/event_time.h"
#include "ymgrd/notify/notification_config.h"

namespace {

void write_stream(ds_status_batch *batch, const std::string &streams, const notification_config_stream &stream)
{
  std::string path = streams + "/stream[name=" + datastore_value_add_quotes(stream.name) + "]";
  bool has_replay = notification_has_replay(stream);
  batch->set(path);
  batch->set(path + "/description", stream.description);
  batch->set(path + "/replaySupport", has_replay ? "true" : "false");
  time_t created = has_replay && event_store_open() == 0 ? event_store_created() : 0;
  if (created != 0) {
    batch->set(path + "/replayLogCreationTime", event_time_format(created));
  }
}

} // namespace

int nc_notifications_status(int, const char *)
{
  ds_status_batch batch;
  if (batch.begin(STREAMS_STATE_PATH) != 0) {
    return -1;
  }
  batch.remove(STREAMS_STATE_PATH);
  std::string streams = std::string(STREAMS_STATE_PATH) + "/streams";
  batch.set(STREAMS_STATE_PATH);
  batch.set(streams);
  for (const notification_config_stream &stream : notification_get_config()->stream) {
    write_stream(&batch, streams, stream);
  }
  return batch.commit();
}
