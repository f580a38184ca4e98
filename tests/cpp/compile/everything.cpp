// Uses everything of shmnm.hpp once, so that every compiler sees all of it.
#include "shmnm.hpp"
// Twice does no harm.
#include "shmnm.hpp"

template class shmnm::BasicLock<shmnm::detail::c::shmnm_rolock, shmnm::detail::c::shmnm_rounlock>;
template class shmnm::Resource<shmnm::detail::Hb>;
template class shmnm::Resource<shmnm::detail::Np>;

namespace {

template <class... Codes>
std::size_t use_values(Codes&... codes) {
    std::array<std::uint32_t, 4> words{};
    std::vector<std::byte> bytes(4);
    shmnm::Attachment region = shmnm::attach(codes...);
    region = shmnm::create(codes...);
    shmnm::clear(codes...);
    shmnm::set(shmnm::clstat, shmnm::get(shmnm::clstat, codes...), codes...);
    shmnm::set_maxima(shmnm::maxima(codes...), codes...);
    shmnm::set_hb_info(shmnm::hb_info(codes...), codes...);
    shmnm::simulate_partition(words, codes...);
    if (shmnm::partition_simulated(words, codes...) && shmnm::partition_simulated(codes...))
        shmnm::end_partition(codes...);
    shmnm::set_fst_description(shmnm::fst_description(codes...), codes...);
    shmnm::set_fst_pid("monitor", shmnm::FstKind::zero, shmnm::fst_pid("monitor", shmnm::FstKind::one, codes...),
                       codes...);
    shmnm::dump(bytes, codes...);
    region.close(codes...);
    return shmnm::dump(codes...).size() + shmnm::dump_size(codes...) + (shmnm::any_alive(codes...) ? 1 : 0);
}

template <class... Codes>
std::size_t use_server(Codes&... codes) {
    std::vector<shmnm::State> states(4);
    const shmnm::ReadLock lock(std::chrono::milliseconds(1), codes...);
    const shmnm::Server alpha(std::string_view("alpha"));
    alpha.add({1}, codes...);
    alpha.set_priority(alpha.priority(codes...), codes...);
    alpha.set(shmnm::nodestat, alpha.get(shmnm::nodestat, codes...), codes...);
    alpha.remove(codes...);
    return shmnm::Server::with_priority({1}, codes...).column(shmnm::hbrscsvstat, lock, codes...).size() +
           alpha.column(shmnm::nprscsvstat, codes...).size() +
           alpha.copy_column(shmnm::rscsvstat_nw, states, codes...) +
           alpha.copy_column(shmnm::rscsvstat_nw, states, lock, codes...) +
           shmnm::Server::names(lock, codes...).size() + shmnm::Server::names(codes...).size() +
           (alpha.combined(codes...) ? 1 : 0) + (alpha.any_other_alive(codes...) ? 1 : 0);
}

template <class Resource, class Word, class Pair, class... Codes>
std::size_t use_resource(Word word, Pair pair, Codes&... codes) {
    std::uint32_t words[4] = {};
    const shmnm::WriteLock lock(std::chrono::hours(1), codes...);
    const Resource lan1("lan", std::string("lan1"));
    lan1.add(1, codes...);
    lan1.set_priority(lan1.priority(codes...), codes...);
    lan1.set(word, lan1.get(word, codes...), codes...);
    lan1.set(pair, {1}, lan1.get(pair, {1}, codes...), codes...);
    lan1.set_description(lan1.description(codes...), codes...);
    lan1.remove(codes...);
    Resource::set_all_of_type("lan", shmnm::State::alive, codes...);
    Resource::open_column(1, codes...);
    Resource::close_column(1, codes...);
    return Resource::named("lan1", codes...).row(pair, lock, codes...).size() + lan1.row(pair, codes...).size() +
           lan1.copy_row(pair, words, codes...) + Resource::types(lock, codes...).size() +
           Resource::names(lock, codes...).size() + Resource::names_of_type("lan", lock, codes...).size() +
           Resource::types(codes...).size() + Resource::names(codes...).size() +
           Resource::names_of_type("lan", codes...).size();
}

template <class... Codes>
std::size_t use_all(Codes&... codes) {
    return use_values(codes...) + use_server(codes...) +
           use_resource<shmnm::HbResource>(shmnm::hbrscstat, shmnm::hbrscsvstat, codes...) +
           use_resource<shmnm::HbResource>(shmnm::hbrscstat, shmnm::rscsvstat_nw, codes...) +
           use_resource<shmnm::NpResource>(shmnm::nprscstat, shmnm::nprscsvstat, codes...);
}

template <class Type, class = void>
struct has_throwing_form : std::false_type {};
template <class Type>
struct has_throwing_form<Type, std::void_t<decltype(std::declval<const Type&>().remove())>> : std::true_type {};

#ifdef __cpp_exceptions
constexpr bool has_exceptions = true;
#else
constexpr bool has_exceptions = false;
#endif
static_assert(has_throwing_form<shmnm::Server>::value == has_exceptions);
static_assert(has_throwing_form<shmnm::HbResource>::value == has_exceptions);

}  // namespace

int main() {
    std::error_code error;
    std::size_t used = use_all(error);
#ifdef __cpp_exceptions
    try {
        used += use_all();
    } catch (const shmnm::Error& thrown) {
        error = thrown.code();
    }
#endif
    return used > 0 || error == shmnm::errc::notinit ? 0 : 1;
}
