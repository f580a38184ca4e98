// A deliberately plain model of the library, to be compared with it call by call. It knows the region as bytes at
// offsets and shares no code and no declaration with the library.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace model {

struct Line {
    uint32_t level;
    std::string function, text;
    bool operator==(const Line&) const = default;
};

/// The region of one process, mapped with four counts; every function takes what the library's takes.
class Model {
  public:
    /// `view` is what the mapping holds, in whole pages.
    Model(int32_t servers, int32_t hb, int32_t np, int32_t fst, std::vector<uint8_t> view);

    std::vector<uint8_t> view;
    std::vector<Line> lines;  ///< of the calls since this was cleared

    uint32_t clear();
    uint32_t dump(uint8_t* buf, int32_t* size);

    uint32_t setmaxvalue_ex(int32_t servers, int32_t hb, int32_t np);
    uint32_t getmaxvalue_ex(uint32_t* servers, uint32_t* hb, uint32_t* np);
    uint32_t sethbinfo_ex(int32_t a, int32_t b);
    uint32_t gethbinfo_ex(uint32_t* a, uint32_t* b);
    uint32_t setwaitstat(uint32_t v) { return set_header_word("_setwaitstat", 44, v); }
    uint32_t getwaitstat(uint32_t* v) { return get_header_word("_getwaitstat", 44, v); }
    uint32_t setbwflag(uint32_t v) { return set_header_word("_setbwflag", 48, v); }
    uint32_t getbwflag(uint32_t* v) { return get_header_word("_getbwflag", 48, v); }
    uint32_t setbwflagdisk(uint32_t v) { return set_header_word("_setbwflagdisk", 52, v); }
    uint32_t getbwflagdisk(uint32_t* v) { return get_header_word("_getbwflagdisk", 52, v); }
    uint32_t setclstat(uint32_t v) { return set_header_word("shmnm_setclstat", 56, v); }
    uint32_t getclstat(uint32_t* v) { return get_header_word("shmnm_getclstat", 56, v); }

    uint32_t addnode(const char* name, int32_t pri);
    uint32_t rmnode(const char* name);
    uint32_t modifynode(const char* name, int32_t pri);
    uint32_t enumnode(char* buf, uint32_t* size);
    uint32_t getnodepri(const char* name, int32_t* pri);
    uint32_t getnodename(char* name, int32_t pri);

    uint32_t setnodestat(const char* n, uint32_t v) { return set_server_word("_setnodestat", 260, n, v); }
    uint32_t getnodestat(const char* n, uint32_t* v) { return get_server_word("_getnodestat", 260, n, v); }
    uint32_t setnodestat_nw(const char* n, uint32_t v) { return set_server_word("_setnodestat_nw", 264, n, v); }
    uint32_t getnodestat_nw(const char* n, uint32_t* v) { return get_server_word("_getnodestat_nw", 264, n, v); }
    uint32_t setdownnotifystat(const char* n, uint32_t v) {
        return set_server_word("shmnm_setdownnotifystat", 268, n, v);
    }
    uint32_t getdownnotifystat(const char* n, uint32_t* v) {
        return get_server_word("shmnm_getdownnotifystat", 268, n, v);
    }
    uint32_t setisolateflag(const char* n, uint32_t v) { return set_server_word("shmnm_setisolateflag", 276, n, v); }
    uint32_t getisolateflag(const char* n, uint32_t* v) { return get_server_word("shmnm_getisolateflag", 276, n, v); }
    uint32_t setpingstat(const char* n, uint32_t v) { return set_server_word("_setpingstat", 280, n, v); }
    uint32_t getpingstat(const char* n, uint32_t* v) { return get_server_word("_getpingstat", 280, n, v); }
    uint32_t setholdstat(const char* n, uint32_t v) { return set_server_word("_setholdstat", 284, n, v); }
    uint32_t getholdstat(const char* n, uint32_t* v) { return get_server_word("_getholdstat", 284, n, v); }
    uint32_t getnodecombstat(const char* name, uint32_t* stat);
    uint32_t chkalivesv(const char* name, uint32_t* flag);

    uint32_t addhbrsc(const char* t, const char* n, uint32_t p) { return add("_addhbrsc", hb(), t, n, p); }
    uint32_t addnprsc(const char* t, const char* n, uint32_t p) { return add("_addnprsc", np(), t, n, p); }
    uint32_t rmhbrsc(const char* t, const char* n) { return rm("_rmhbrsc", hb(), t, n); }
    uint32_t rmnprsc(const char* t, const char* n) { return rm("_rmnprsc", np(), t, n); }
    uint32_t modifyhbrsc(const char* t, const char* n, uint32_t p) { return modify("_modifyhbrsc", hb(), t, n, p); }
    uint32_t modifynprsc(const char* t, const char* n, uint32_t p) { return modify("_modifynprsc", np(), t, n, p); }
    uint32_t gethbrscpri(const char* t, const char* n, uint32_t* p) { return getpri("_gethbrscpri", hb(), t, n, p); }
    uint32_t getnprscpri(const char* t, const char* n, uint32_t* p) { return getpri("_getnprscpri", np(), t, n, p); }
    uint32_t gethbrscinfo(char* t, const char* n) { return getinfo("_gethbrscinfo", hb(), t, n); }
    uint32_t getnprscinfo(char* t, const char* n) { return getinfo("_getnprscinfo", np(), t, n); }
    uint32_t enumhbtype(char* b, uint32_t* s) { return enumtype("_enumhbtype", hb(), b, s); }
    uint32_t enumnptype(char* b, uint32_t* s) { return enumtype("_enumnptype", np(), b, s); }
    uint32_t enumhbrsc(const char* t, char* b, uint32_t* s) { return enumrsc("_enumhbrsc", hb(), t, b, s); }
    uint32_t enumnprsc(const char* t, char* b, uint32_t* s) { return enumrsc("_enumnprsc", np(), t, b, s); }

    uint32_t sethbrscstat(const char* t, const char* n, uint32_t v) { return setstat("_sethbrscstat", hb(), t, n, v); }
    uint32_t setnprscstat(const char* t, const char* n, uint32_t v) { return setstat("_setnprscstat", np(), t, n, v); }
    uint32_t gethbrscstat(const char* t, const char* n, uint32_t* v) { return getstat("_gethbrscstat", hb(), t, n, v); }
    uint32_t getnprscstat(const char* t, const char* n, uint32_t* v) { return getstat("_getnprscstat", np(), t, n, v); }
    uint32_t sethbrscsvstat(const char* t, const char* n, int32_t s, uint32_t v) {
        return setsvstat("_sethbrscsvstat", hb(), false, t, n, s, v);
    }
    uint32_t setnprscsvstat(const char* t, const char* n, int32_t s, uint32_t v) {
        return setsvstat("_setnprscsvstat", np(), false, t, n, s, v);
    }
    uint32_t setrscsvstat_nw(const char* t, const char* n, int32_t s, uint32_t v) {
        return setsvstat("_setrscsvstat_nw", hb(), true, t, n, s, v);
    }
    uint32_t gethbrscsvstat(const char* t, const char* n, int32_t s, uint32_t* v) {
        return getsvstat("_gethbrscsvstat", hb(), false, t, n, s, v);
    }
    uint32_t getnprscsvstat(const char* t, const char* n, int32_t s, uint32_t* v) {
        return getsvstat("_getnprscsvstat", np(), false, t, n, s, v);
    }
    uint32_t getrscsvstat_nw(const char* t, const char* n, int32_t s, uint32_t* v) {
        return getsvstat("_getrscsvstat_nw", hb(), true, t, n, s, v);
    }
    uint32_t enumhbrscsvstat(const char* t, const char* n, uint32_t* b, uint32_t* s) {
        return enumrow("_enumhbrscsvstat", hb(), false, t, n, b, s);
    }
    uint32_t enumnprscsvstat(const char* t, const char* n, uint32_t* b, uint32_t* s) {
        return enumrow("_enumnprscsvstat", np(), false, t, n, b, s);
    }
    uint32_t enumrscsvstat_nw(const char* t, const char* n, uint32_t* b, uint32_t* s) {
        return enumrow("_enumrscsvstat_nw", hb(), true, t, n, b, s);
    }
    uint32_t enumsvhbrscstat(const char* sv, uint32_t* b, uint32_t* s) {
        return enumcolumn("_enumsvhbrscstat", hb(), false, sv, b, s);
    }
    uint32_t enumsvnprscstat(const char* sv, uint32_t* b, uint32_t* s) {
        return enumcolumn("_enumsvnprscstat", np(), false, sv, b, s);
    }
    uint32_t enumsvrscstat_nw(const char* sv, uint32_t* b, uint32_t* s) {
        return enumcolumn("_enumsvrscstat_nw", hb(), true, sv, b, s);
    }
    uint32_t settypehbstat(const char* t, uint32_t v) { return settype("_settypehbstat", hb(), t, v); }
    uint32_t settypenpstat(const char* t, uint32_t v) { return settype("_settypenpstat", np(), t, v); }

    uint32_t sethbdescript(const char* t, const char* n, const void* d, int32_t l) {
        return setdescript("_sethbdescript", hb(), t, n, d, l);
    }
    uint32_t setnpdescript(const char* t, const char* n, const void* d, int32_t l) {
        return setdescript("_setnpdescript", np(), t, n, d, l);
    }
    uint32_t gethbdescript(const char* t, const char* n, void* b, const int32_t* s) {
        return getdescript("_gethbdescript", hb(), t, n, b, s);
    }
    uint32_t getnpdescript(const char* t, const char* n, void* b, const int32_t* s) {
        return getdescript("_getnpdescript", np(), t, n, b, s);
    }
    uint32_t addhbrscsvstat(int32_t i) { return addcolumn("_addhbrscsvstat", hb(), i); }
    uint32_t addnprscsvstat(int32_t i) { return addcolumn("_addnprscsvstat", np(), i); }
    uint32_t rmhbrscsvstat(int32_t i) { return rmcolumn("_rmhbrscsvstat", hb(), i); }
    uint32_t rmnprscsvstat(int32_t i) { return rmcolumn("_rmnprscsvstat", np(), i); }

    uint32_t setnpsimu(uint32_t flag, const uint32_t* nodefail, int32_t count);
    uint32_t getnpsimu(uint32_t* flag, uint32_t* nodefail, int32_t count);
    uint32_t getnpsimuflag(uint32_t* flag);

    uint32_t setfstrscstat(uint32_t stat);
    uint32_t getfstrscstat(uint32_t* stat);
    uint32_t setfstdescript(const void* descript, int32_t len);
    uint32_t getfstdescript(void* descript, const int32_t* len);
    uint32_t setfstrscpid(const char* name, int32_t kind, uint32_t pid, uint64_t piddata);
    uint32_t getfstrscpid(const char* name, int32_t kind, uint32_t* pid, uint64_t* piddata);

  private:
    struct Table {
        int64_t start;
        int64_t count_at, limit_at;
        bool network;
        const char* word;
    };
    Table hb() const { return {hb_start_, 32, 12, true, "hb"}; }
    Table np() const { return {np_start_, 36, 16, false, "np"}; }

    // Bytes.
    int64_t end() const { return static_cast<int64_t>(view.size()); }
    bool inside(int64_t at, int64_t size) const { return at >= 0 && size <= end() && at <= end() - size; }
    /// Addresses wrap at 64 bits.
    static int64_t place(int64_t start, int64_t step, int64_t position) {
        const auto wide = [](int64_t number) { return static_cast<uint64_t>(number); };
        return static_cast<int64_t>(wide(start) + wide(step) * wide(position));
    }
    uint32_t get(int64_t at) const;
    int32_t number(int64_t at) const { return static_cast<int32_t>(get(at)); }
    void put(int64_t at, uint32_t value);
    bool same(int64_t at, const char* text) const;
    int64_t length(int64_t at) const;  ///< -1 when no NUL comes before the end
    void put_text(int64_t at, int64_t size, const char* text);

    // Records.
    int64_t stride() const { return 584 + 4 * int64_t{number(8)}; }
    int32_t visible(int64_t start, int64_t step, int64_t fixed, int32_t count) const;
    int32_t visible_servers() const { return visible(1084, 320, 320, number(28)); }
    int32_t visible_resources(const Table& table) const {
        return visible(table.start, stride(), 584, number(table.count_at));
    }
    int64_t server(int32_t p) const { return 1084 + 320 * int64_t{p}; }
    int64_t resource(const Table& table, int32_t p) const { return place(table.start, stride(), p); }
    int64_t word(const Table& table, bool network, int32_t p, int64_t j) const;
    int32_t find_server(const char* name) const;
    int32_t find_priority(int32_t pri) const;
    int32_t find_resource(const Table& table, const char* type, const char* name) const;
    void move_down(int64_t from, int64_t to, int64_t size);
    void zero(int64_t at, int64_t size);

    // Calls.
    void say(uint32_t level, const std::string& text) { lines.push_back({level, functions_.back(), text}); }
    uint32_t fail(uint32_t code, const std::string& text);
    uint32_t call(const char* function, const std::function<uint32_t()>& work);

    uint32_t set_header_word(const char* function, int64_t at, uint32_t value);
    uint32_t get_header_word(const char* function, int64_t at, uint32_t* value);
    uint32_t set_server_word(const char* function, int64_t at, const char* name, uint32_t value);
    uint32_t get_server_word(const char* function, int64_t at, const char* name, uint32_t* value);
    uint32_t add(const char* function, Table table, const char* type, const char* name, uint32_t pri);
    uint32_t rm(const char* function, Table table, const char* type, const char* name);
    uint32_t modify(const char* function, Table table, const char* type, const char* name, uint32_t pri);
    uint32_t getpri(const char* function, Table table, const char* type, const char* name, uint32_t* pri);
    uint32_t getinfo(const char* function, Table table, char* type, const char* name);
    uint32_t enumtype(const char* function, Table table, char* buf, uint32_t* size);
    uint32_t enumrsc(const char* function, Table table, const char* type, char* buf, uint32_t* size);
    uint32_t list(const std::vector<int64_t>& texts, char* buf, uint32_t* size);
    uint32_t setstat(const char* function, Table table, const char* type, const char* name, uint32_t stat);
    uint32_t getstat(const char* function, Table table, const char* type, const char* name, uint32_t* stat);
    uint32_t setsvstat(const char* function, Table table, bool network, const char* type, const char* name,
                       int32_t svid, uint32_t stat);
    uint32_t getsvstat(const char* function, Table table, bool network, const char* type, const char* name,
                       int32_t svid, uint32_t* stat);
    uint32_t enumrow(const char* function, Table table, bool network, const char* type, const char* name, uint32_t* buf,
                     uint32_t* size);
    uint32_t enumcolumn(const char* function, Table table, bool network, const char* svname, uint32_t* buf,
                        uint32_t* size);
    uint32_t settype(const char* function, Table table, const char* type, uint32_t stat);
    int64_t find_described(const Table& table, const char* type, const char* name) const;
    uint32_t setdescript(const char* function, Table table, const char* type, const char* name, const void* data,
                         int32_t len);
    uint32_t getdescript(const char* function, Table table, const char* type, const char* name, void* buf,
                         const int32_t* size);
    bool columns_inside(const Table& table, int64_t first, int64_t last) const;
    uint32_t addcolumn(const char* function, Table table, int32_t index);
    uint32_t rmcolumn(const char* function, Table table, int32_t index);
    bool has_fst() const { return fst_ > 0 && inside(fst_start_, 584); }

    int64_t hb_start_, np_start_, fst_start_, pid_start_, network_start_;
    uint32_t size_;
    int32_t fst_;
    std::vector<std::string> functions_;
};

}  // namespace model
