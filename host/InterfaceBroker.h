#pragma once

/** The host's directory of other interfaces. Handed to the module, which never calls it. */
class IInterfaceBroker {
 public:
  virtual ~IInterfaceBroker() = default;
};
