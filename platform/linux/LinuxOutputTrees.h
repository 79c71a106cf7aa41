#pragma once

#include <memory>
#include <string>

#include "platform/OutputTrees.h"

namespace quillsift {

class LinuxOutputTrees final : public OutputTrees {
 public:
  std::unique_ptr<OutputTree> makeDirectory(const std::string& path) override;
};

}  // namespace quillsift
