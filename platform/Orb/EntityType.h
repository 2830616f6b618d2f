#pragma once

// The interface by name: what an entity's type is called, which attributes and operations it has,
// an attribute's string form, and a call of an operation whose arguments and result are string
// forms. Used by agents' sockets and tools; entities describe their type once:
//
//     const Orb::EntityType& Lamp::entityType() {
//       static const auto type = Orb::EntityTypeOf<Lamp>("Home::Lamp")
//                                    .attribute("lit", &Lamp::lit)
//                                    .operation("litIs", &Lamp::litIs, {"lit"});
//       return type;
//     }
//
// Descriptions are immutable once built; calls run on the framework's thread.

#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "Orb/Assert.h"
#include "Orb/Entity.h"
#include "Orb/EntityStrep.h"
#include "Orb/Strep.h"
#include "Orb/StrepPieces.h"
#include "Orb/Value.h"

namespace Orb {

class ORB_EXPORT EntityType {
 public:
  struct Attribute {
    std::string name;
    std::string typeName;
    std::function<std::string(const Entity&)> strep;
    std::function<std::unique_ptr<StrepPieces>()> pieces;
  };
  struct Argument {
    std::string name;
    std::string typeName;
    bool parses;
  };
  struct Operation {
    std::string name;
    std::vector<Argument> arguments;
    std::string resultTypeName;
    // `arguments` has as many elements as the operation has arguments, and all of them parse.
    std::function<std::string(Entity&, std::span<const std::string_view>)> call;
  };

  const std::string& name() const { return name_; }
  const std::vector<Attribute>& attributes() const { return attributes_; }
  const std::vector<Operation>& operations() const { return operations_; }

 protected:
  explicit EntityType(std::string name) : name_(std::move(name)) {}

  std::string name_;
  std::vector<Attribute> attributes_;
  std::vector<Operation> operations_;
};

// The string form of one attribute. Throws InterfaceException when the entity's type has none of
// that name.
ORB_EXPORT std::string attributeStrep(const Entity& entity, std::string_view attribute);

// Calls an operation (of several with that name, the one with so many arguments) and returns its
// result's string form, "None" when it has no result. Throws
// InterfaceException for an unknown operation, a wrong number of arguments, or an argument whose
// type has no parser; ParseException or RangeException, naming the argument, for one that cannot be
// read; and whatever the operation throws.
ORB_EXPORT std::string callOperation(Entity& entity, std::string_view operation,
                                     std::span<const std::string_view> arguments);

namespace detail {
// Runs `read` and puts the argument's name before the message of what it throws.
ORB_EXPORT void readArgument(std::string_view name, const std::function<void()>& read);

template <class T>
T argumentFromStrep(const std::string& name, std::string_view strep) {
  std::optional<T> value;
  if constexpr (Strep<T>::parses) {
    readArgument(name, [&] { value.emplace(strepToValue<T>(strep)); });
  }
  return std::move(*value);
}
}  // namespace detail

// Builds the description of the entity type E.
template <class E>
class EntityTypeOf : public EntityType {
 public:
  explicit EntityTypeOf(std::string name) : EntityType(std::move(name)) {}

  // Takes over the attributes and operations of a base class.
  EntityTypeOf& extends(const EntityType& base) {
    attributes_ = base.attributes();
    operations_ = base.operations();
    return *this;
  }

  // `read` is a getter, or anything that can be invoked with a const E&.
  template <class Read>
  EntityTypeOf& attribute(std::string name, Read read) {
    using T = std::remove_cvref_t<std::invoke_result_t<Read, const E&>>;
    attributes_.push_back({std::move(name), Strep<T>::typeName(),
                           [read](const Entity& entity) {
                             return valueToStrep<T>(
                                 std::invoke(read, static_cast<const E&>(entity)));
                           },
                           [read] { return detail::strepPieces<E>(read); }});
    return *this;
  }

  template <class Result, class C, class... P>
  EntityTypeOf& operation(std::string name, Result (C::*method)(P...),
                          std::initializer_list<const char*> argumentNames) {
    return add<Result, std::remove_cvref_t<P>...>(std::move(name), method, argumentNames);
  }
  template <class Result, class C, class... P>
  EntityTypeOf& operation(std::string name, Result (C::*method)(P...) const,
                          std::initializer_list<const char*> argumentNames) {
    return add<Result, std::remove_cvref_t<P>...>(std::move(name), method, argumentNames);
  }

 private:
  template <class Result, class... P, class Method>
  EntityTypeOf& add(std::string name, Method method, std::initializer_list<const char*> names) {
    Operation added{std::move(name), {}, resultName<Result>(), {}};
    ORB_ASSERT(names.size() == sizeof...(P), "names.size() == sizeof...(P)",
               "{} is described with {} argument names", added.name, names.size());
    [[maybe_unused]] auto argumentName = names.begin();
    (added.arguments.push_back({*argumentName++, Strep<P>::typeName(), Strep<P>::parses}), ...);
    added.call = [method, arguments = added.arguments](Entity& entity,
                                                       std::span<const std::string_view> streps) {
      return invoke<Result, P...>(static_cast<E&>(entity), method, arguments, streps,
                                  std::index_sequence_for<P...>());
    };
    operations_.push_back(std::move(added));
    return *this;
  }

  template <class Result>
  static std::string resultName() {
    if constexpr (std::is_void_v<Result>) {
      return "None";
    } else {
      return Strep<std::remove_cvref_t<Result>>::typeName();
    }
  }

  template <class Result, class... P, class Method, size_t... I>
  static std::string invoke(E& entity, Method method,
                            [[maybe_unused]] const std::vector<Argument>& arguments,
                            [[maybe_unused]] std::span<const std::string_view> streps,
                            std::index_sequence<I...>) {
    // Braces keep the reading in the order of the arguments.
    const std::tuple<P...> values{detail::argumentFromStrep<P>(arguments[I].name, streps[I])...};
    if constexpr (std::is_void_v<Result>) {
      (entity.*method)(std::get<I>(values)...);
      return "None";
    } else {
      return valueToStrep<std::remove_cvref_t<Result>>((entity.*method)(std::get<I>(values)...));
    }
  }
};

}  // namespace Orb
