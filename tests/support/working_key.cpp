#include "support/working_key.h"

#include <stdexcept>

#include <sys/wait.h>

#include "support/environment.h"

namespace support {

keytool_run_t run_keytool(const std::vector<std::string> &arguments)
{
  temp_dir dir;
  std::vector<std::string> words = {YMGR_KEYTOOL_BINARY};
  words.insert(words.end(), arguments.begin(), arguments.end());
  child_process process;
  keytool_run_t run;
  if (process.start(words, dir / "output")) {
    std::optional<int> status = process.wait();
    run.exit_code = status && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1;
    run.output = read_file(dir / "output");
  }
  return run;
}

std::string provision_key(const std::string &config_dir)
{
  keytool_run_t run = run_keytool({"provision", "--print", "--table", config_dir + "/table2.key"});
  size_t begin = run.output.find('[');
  size_t end = run.output.find(']');
  if (run.exit_code != 0 || begin == std::string::npos || end == std::string::npos) {
    throw std::runtime_error("no working key: " + run.output);
  }
  return run.output.substr(begin, end + 1 - begin);
}

} // namespace support
