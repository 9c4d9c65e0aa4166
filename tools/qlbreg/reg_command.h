#pragma once
// The verbs of qlbreg: query, add and delete, with the syntax, output and exit status of the Windows
// registry console tool. The store is opened only once the command line is known to be good.

#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include "runtime/common/result.h"
#include "runtime/registry/registry_store.h"

namespace qlb::regtool {

using StoreOpener = std::function<SysResult<std::shared_ptr<registry::RegistryStore>>()>;

// args are the words after the program name, UTF-8. Prompts read their answers from `in`; at end of
// input the answer is No. Returns the exit status: 0 on success, 1 on any failure.
int RunRegCommand(const std::vector<std::string>& args, std::istream& in, std::ostream& out,
                  std::ostream& err, const StoreOpener& openStore);

}  // namespace qlb::regtool
