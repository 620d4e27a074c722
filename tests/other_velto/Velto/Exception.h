#pragma once

// Another framework than the stand-in: the same names, made differently.

#include <exception>
#include <memory>
#include <string>

namespace Velto {

class Exception : public std::exception {
 public:
  Exception(std::string message, bool reportable)
      : message_(std::make_shared<const std::string>("[other] " + std::move(message))),
        reportable_(reportable) {}

  const char* what() const noexcept override { return message_->c_str(); }
  virtual bool reportable() const noexcept { return reportable_; }

 private:
  std::shared_ptr<const std::string> message_;
  bool reportable_;
};

}  // namespace Velto
