#include "dbase/TTable.h"

#include "dbase/core/alias.h"
#include "dbase/core/codepage.h"
#include "dbase/core/cursor.h"
#include "dbase/core/dbf_file.h"
#include "dbase/core/field_value.h"
#include "dbase/core/mdx_tag.h"
#include "dbase/core/mdx_tags.h"

using dbase::Error;
using dbase::ErrorKind;

namespace {
std::string utf8(const QString& s) { return s.toStdString(); }
QString qtext(const std::string& s) { return QString::fromUtf8(s.data(), qsizetype(s.size())); }
}  // namespace

// ---- TField ----------------------------------------------------------------

const dbase::FieldDescriptor& TField::descriptor() const { return table_->file().fields()[size_t(index_)]; }

int TField::Size() const {
  if (calculated_) return size_;
  return table_->Active() ? int(descriptor().length) : 0;
}

QString TField::AsString() const {
  if (calculated_) return table_->calcValue(index_);
  const char* record = table_->activeRecord();
  if (!record) return QString();
  const dbase::FieldDescriptor& f = descriptor();
  if (f.type != dbase::FieldType::Logical) {
    // ASCII text (nearly every value): straight to UTF-16, one allocation.
    const std::string_view raw = f.type == dbase::FieldType::Character || f.type == dbase::FieldType::Memo
                                     ? dbase::trimRight(dbase::fieldBytes(f, record))
                                     : dbase::trimBlanks(dbase::fieldBytes(f, record));
    bool ascii = true;
    for (char c : raw) ascii &= static_cast<unsigned char>(c) < 0x80 && c != 0;
    if (ascii) return QString::fromLatin1(raw.data(), qsizetype(raw.size()));
  }
  return qtext(dbase::fieldText(f, record, table_->file().codePage()));
}

double TField::AsFloat() const {
  if (calculated_) return AsString().trimmed().toDouble();
  const char* record = table_->activeRecord();
  if (!record) return 0;
  auto value = dbase::parseNumber(dbase::trimBlanks(dbase::fieldBytes(descriptor(), record)));
  if (!value && !dbase::trimBlanks(dbase::fieldBytes(descriptor(), record)).empty())
    throw Error(ErrorKind::InvalidArgument, table_->file().name(),
                "«" + utf8(AsString()) + "» del campo " + utf8(name_) + " no es un número");
  return value.value_or(0);
}

int TField::AsInteger() const { return int(AsFloat()); }

bool TField::AsBoolean() const {
  if (calculated_) return AsString() == QLatin1String("T");
  const char* record = table_->activeRecord();
  return record && dbase::fieldFlag(descriptor(), record);
}

bool TField::IsNull() const {
  if (calculated_) return AsString().isEmpty();
  const char* record = table_->activeRecord();
  return !record || dbase::trimBlanks(dbase::fieldBytes(descriptor(), record)).empty();
}

void TField::SetAsString(const QString& value) {
  if (calculated_) return table_->setCalcValue(index_, value);
  char* record = table_->writableRecord(*this);
  const dbase::DbfFile& file = table_->cursor_->file();
  const dbase::FieldDescriptor& f = file.fields()[size_t(index_)];
  // ASCII text (nearly every value): straight to bytes, no UTF-8 copy.
  char ascii[256];
  const qsizetype n = value.size();
  if (n <= qsizetype(sizeof ascii)) {
    const QChar* text = value.constData();
    char16_t high = 0;
    for (qsizetype i = 0; i < n; ++i) {
      high |= text[i].unicode();
      ascii[i] = char(text[i].unicode());
    }
    if (high < 0x80) return dbase::setFieldAscii(f, record, std::string_view(ascii, size_t(n)), file.codePage(), file.name());
  }
  dbase::setFieldText(f, record, utf8(value), file.codePage(), file.name());
}

void TField::SetAsInteger(int value) { SetAsFloat(value); }

void TField::SetAsFloat(double value) {
  if (calculated_) return table_->setCalcValue(index_, QString::number(value));
  const auto& f = descriptor();
  if (!f.numeric()) return SetAsString(QString::number(value, 'f', int(f.decimals)));
  dbase::setFieldNumber(f, table_->writableRecord(*this), value, table_->file().name());
}

void TField::SetAsBoolean(bool value) {
  if (calculated_) return table_->setCalcValue(index_, value ? "T" : "F");
  const auto& f = descriptor();
  if (f.type != dbase::FieldType::Logical) return SetAsString(value ? "T" : "F");
  dbase::setFieldFlag(f, table_->writableRecord(*this), value);
}

void TField::Clear() {
  if (calculated_) return table_->setCalcValue(index_, QString());
  dbase::blankField(descriptor(), table_->writableRecord(*this));
}

// ---- TTable ----------------------------------------------------------------

TTable::TTable(QObject* owner) : QObject(owner) {}

TTable::~TTable() = default;

std::unique_ptr<dbase::WriteBatch> TTable::BeginWriteBatch() {
  requireActive();
  return std::make_unique<dbase::WriteBatch>(file());
}

void TTable::FlushBuffers() { file().settleWrites(); }

dbase::DbfFile& TTable::file() const {
  requireActive();
  return cursor_->file();
}

void TTable::requireActive() const {
  if (!cursor_) throw Error(ErrorKind::State, utf8(tableName_), "la tabla está cerrada");
}

void TTable::SetDatabaseName(const QString& aliasOrDirectory) {
  if (Active()) throw Error(ErrorKind::State, utf8(tableName_), "no se puede cambiar la base de datos con la tabla abierta");
  databaseName_ = aliasOrDirectory;
}

void TTable::SetTableName(const QString& fileName) {
  if (Active()) throw Error(ErrorKind::State, utf8(tableName_), "no se puede cambiar el fichero con la tabla abierta");
  tableName_ = fileName;
}

void TTable::AddIndexDef(const QString& name, const QStringList& fields) {
  for (auto& def : indexDefs_)
    if (def.name.compare(name, Qt::CaseInsensitive) == 0) {
      def.fields = fields;
      return;
    }
  indexDefs_.push_back({name, fields});
}

QStringList TTable::IndexDefNames() const {
  QStringList names;
  for (const auto& def : indexDefs_) names << def.name;
  if (Active())
    for (const auto& tag : dbase::MdxTags::of(cursor_->file()).tags())
      if (!names.contains(qtext(tag.name), Qt::CaseInsensitive)) names << qtext(tag.name);
  return names;
}

const TTable::IndexDef* TTable::declaredIndex(const QString& name) const {
  for (const auto& def : indexDefs_)
    if (def.name.compare(name, Qt::CaseInsensitive) == 0) return &def;
  return nullptr;
}

dbase::MdxTag* TTable::productionTag(const QString& name) const {
  if (!Active() || name.isEmpty()) return nullptr;
  return dbase::MdxTags::of(cursor_->file()).tag(utf8(name));
}

QStringList TTable::IndexFields() const {
  if (const IndexDef* def = declaredIndex(indexName_)) return def->fields;
  QStringList fields;
  if (dbase::MdxTag* tag = productionTag(indexName_))
    for (int f : tag->expression().fields()) fields << qtext(cursor_->file().fields()[size_t(f)].name);
  return fields;
}

void TTable::SetIndexName(const QString& name) {
  // Choosing the tag in force again changes nothing, the position included.
  if (name.compare(indexName_, Qt::CaseInsensitive) == 0) return;
  if (!name.isEmpty() && !declaredIndex(name) &&
      !(Active() && dbase::MdxTags::of(cursor_->file()).has(utf8(name))))
    throw Error(ErrorKind::InvalidArgument, utf8(tableName_), "índice desconocido: " + utf8(name));
  indexName_ = name;
  if (Active()) {
    checkBrowseMode();
    applyIndex();
    afterMove();
    notifyDataSet();
  }
}

TField* TTable::FindField(const QString& name) {
  for (auto& f : fields_)
    if (f->name_.compare(name, Qt::CaseInsensitive) == 0) return f.get();
  if (Active()) {
    int index = cursor_->file().fieldIndex(utf8(name));
    if (index >= 0) {
      TField* f = AddField(QString::fromStdString(cursor_->file().fields()[size_t(index)].name));
      f->index_ = index;
      return f;
    }
  }
  return nullptr;
}

TField* TTable::FieldByName(const QString& name) {
  if (TField* f = FindField(name)) return f;
  throw Error(ErrorKind::InvalidArgument, utf8(tableName_), "campo desconocido: " + utf8(name));
}

QStringList TTable::FieldNames() const {
  QStringList names;
  if (cursor_)
    for (const auto& f : cursor_->file().fields()) names << QString::fromStdString(f.name);
  for (const auto& f : fields_)
    if (f->calculated_) names << f->name_;
  return names;
}

TField* TTable::AddField(const QString& name) {
  fields_.push_back(std::unique_ptr<TField>(new TField(this, name, false, 0)));
  return fields_.back().get();
}

TField* TTable::AddCalcField(const QString& name, int size) {
  fields_.push_back(std::unique_ptr<TField>(new TField(this, name, true, size)));
  fields_.back()->index_ = calcCount_++;
  calcRow_.resize(size_t(calcCount_));
  return fields_.back().get();
}

QString TTable::FilePath() const { return cursor_ ? qtext(cursor_->file().path()) : QString(); }

void TTable::Open() {
  if (Active()) return;
  std::string directory = dbase::resolveAlias(utf8(databaseName_.isEmpty() ? QStringLiteral(".") : databaseName_));
  QString name = tableName_;
  if (!name.contains('.')) name += QStringLiteral(".DBF");
  auto file = dbase::DbfFile::open(directory + "/" + utf8(name));
  // A production index is read now, and kept right on every write.
  if (file->hasProductionMdx()) dbase::MdxTags::of(*file);
  for (auto& f : fields_) {
    if (f->calculated_) continue;
    f->index_ = file->fieldIndex(utf8(f->name_));
    if (f->index_ < 0)
      throw Error(ErrorKind::InvalidArgument, file->name(), "campo desconocido: " + utf8(f->name_));
  }
  cursor_ = std::make_unique<dbase::Cursor>(file);
  try {
    applyIndex();
    applyFilter();
  } catch (...) {
    cursor_.reset();
    throw;
  }
  state_ = dsBrowse;
  calculatedRecno_ = 0;
  afterMove();
  notifyDataSet();
}

void TTable::Close() {
  if (!Active()) return;
  cursor_.reset();
  state_ = dsInactive;
  buffer_.clear();
  std::fill(calcRow_.begin(), calcRow_.end(), QString());
  notifyDataSet();
}

// A tag the table's production index holds is served from it; one it lacks
// is built in memory from the fields declared for it.
void TTable::applyIndex() {
  if (dbase::MdxTag* tag = productionTag(indexName_)) {
    std::vector<int> fields;
    if (const IndexDef* def = declaredIndex(indexName_))
      fields = fieldIndexes(*def);
    else
      fields = tag->expression().fields();
    cursor_->setOrder(*tag, fields);
    return;
  }
  std::vector<int> order;
  if (const IndexDef* def = declaredIndex(indexName_)) order = fieldIndexes(*def);
  cursor_->setOrder(order);
}

std::vector<int> TTable::fieldIndexes(const IndexDef& def) const {
  std::vector<int> order;
  for (const QString& field : def.fields) {
    int index = cursor_->file().fieldIndex(utf8(field.trimmed()));
    if (index < 0)
      throw Error(ErrorKind::InvalidArgument, cursor_->file().name(),
                  "el índice " + utf8(def.name) + " usa el campo " + utf8(field) + ", que no existe");
    order.push_back(index);
  }
  return order;
}

void TTable::applyFilter() { cursor_->setFilter(filtered_ ? utf8(filter_) : std::string()); }

void TTable::SetFilter(const QString& text) {
  if (Active() && filtered_) {
    checkBrowseMode();
    cursor_->setFilter(utf8(text));  // throws before anything changes on a bad text
    filter_ = text;
    afterMove();
    notifyDataSet();
    return;
  }
  filter_ = text;
}

void TTable::SetFiltered(bool on) {
  if (on == filtered_) return;
  if (Active()) {
    checkBrowseMode();
    cursor_->setFilter(on ? utf8(filter_) : std::string());
    filtered_ = on;
    afterMove();
    notifyDataSet();
    return;
  }
  filtered_ = on;
}

void TTable::checkBrowseMode() {
  if (state_ == dsEdit || state_ == dsInsert) Post();
}

void TTable::First() {
  requireActive();
  checkBrowseMode();
  cursor_->first();
  afterMove();
}

void TTable::Next() {
  requireActive();
  checkBrowseMode();
  cursor_->next();
  afterMove();
}

void TTable::Prior() {
  requireActive();
  checkBrowseMode();
  cursor_->prior();
  afterMove();
}

void TTable::Last() {
  requireActive();
  checkBrowseMode();
  cursor_->last();
  afterMove();
}

bool TTable::Eof() const { return !cursor_ || cursor_->eof(); }
bool TTable::Bof() const { return !cursor_ || cursor_->bof(); }

bool TTable::IsEmpty() {
  requireActive();
  return cursor_->empty();
}

int TTable::RecNo() {
  requireActive();
  return int(cursor_->recno());
}

int TTable::RecordCount() {
  requireActive();
  return int(cursor_->count());
}

int TTable::CurrentIndex() {
  requireActive();
  return cursor_->recno() ? int(cursor_->position()) : -1;
}

void TTable::GotoIndex(int index) {
  requireActive();
  if (index < 0 || index == CurrentIndex()) return;
  checkBrowseMode();
  const uint32_t recno = cursor_->recnoAt(size_t(index));
  if (!recno || !cursor_->gotoRecno(recno)) return;
  afterMove();
}

void TTable::Refresh() {
  requireActive();
  checkBrowseMode();
  cursor_->refresh();
  calculatedRecno_ = 0;
  afterMove();
  notifyDataSet();
}

static std::vector<std::string> keyValues(const QVariantList& values) {
  std::vector<std::string> out;
  out.reserve(size_t(values.size()));
  for (const QVariant& v : values) out.push_back(v.toString().toStdString());
  return out;
}

bool TTable::FindKey(const QVariantList& values) {
  requireActive();
  checkBrowseMode();
  bool found = cursor_->seek(keyValues(values), true);
  if (found) afterMove();
  return found;
}

bool TTable::FindNearest(const QVariantList& values) {
  requireActive();
  checkBrowseMode();
  bool found = cursor_->seek(keyValues(values), false);
  afterMove();
  return found;
}

TBookmark TTable::GetBookmark() {
  requireActive();
  return TBookmark{cursor_->recno()};
}

bool TTable::BookmarkValid(const TBookmark& bookmark) {
  if (!Active() || !bookmark.isValid()) return false;
  uint32_t here = cursor_->recno();
  bool valid = cursor_->gotoRecno(bookmark.recno);
  if (here) cursor_->gotoRecno(here);
  return valid;
}

void TTable::GotoBookmark(const TBookmark& bookmark) {
  requireActive();
  checkBrowseMode();
  if (!bookmark.isValid() || !cursor_->gotoRecno(bookmark.recno))
    throw Error(ErrorKind::State, cursor_->file().name(), "registro no encontrado");
  afterMove();
}

void TTable::Append() {
  requireActive();
  checkBrowseMode();
  buffer_.assign(cursor_->file().recordLength(), ' ');  // a blank row, reusing the buffer
  state_ = dsInsert;
}

void TTable::Edit() {
  requireActive();
  if (state_ == dsEdit || state_ == dsInsert) return;
  const char* record = cursor_->record();
  if (!record) throw Error(ErrorKind::State, cursor_->file().name(), "no hay registro que editar");
  buffer_.assign(record, cursor_->file().recordLength());
  state_ = dsEdit;
}

void TTable::Post() {
  requireActive();
  if (state_ != dsEdit && state_ != dsInsert) return;
  uint32_t recno;
  if (state_ == dsInsert) {
    recno = cursor_->file().append(buffer_);
  } else {
    recno = cursor_->recno();
    cursor_->file().update(recno, buffer_);
  }
  state_ = dsBrowse;
  buffer_.clear();
  cursor_->gotoRecno(recno);  // follow the row when the view still holds it
  calculatedRecno_ = 0;
  afterMove();
  notifyDataSet();
}

void TTable::Cancel() {
  if (state_ != dsEdit && state_ != dsInsert) return;
  state_ = dsBrowse;
  buffer_.clear();
  notifyDataSet();
}

void TTable::DisableControls() { ++disableCount_; }

void TTable::EnableControls() {
  if (disableCount_ == 0) return;
  if (--disableCount_ == 0) {
    pendingChange_ = false;
    emit dataSetChanged();
  }
}

void TTable::notifyDataSet() {
  if (disableCount_ > 0)
    pendingChange_ = true;
  else
    emit dataSetChanged();
}

void TTable::afterMove() {
  calculate();
  if (disableCount_ == 0) emit currentChanged();
}

const char* TTable::activeRecord() const {
  if (calcRecord_) return calcRecord_;
  if (!cursor_) return nullptr;
  if (state_ == dsEdit || state_ == dsInsert) return buffer_.data();
  return cursor_->record();
}

char* TTable::writableRecord(const TField& field) {
  requireActive();
  if (state_ != dsEdit && state_ != dsInsert)
    throw Error(ErrorKind::State, cursor_->file().name(),
                "la tabla no está en edición (campo " + utf8(field.FieldName()) + ")");
  return buffer_.data();
}

QString TTable::calcValue(int slot) const { return calcRow_[size_t(slot)]; }

void TTable::setCalcValue(int slot, const QString& value) {
  if (state_ != dsCalcFields)
    throw Error(ErrorKind::State, utf8(tableName_), "un campo calculado sólo se asigna al calcular la fila");
  calcRow_[size_t(slot)] = value;
}

void TTable::calculate() {
  if (!OnCalcFields || calcCount_ == 0 || !cursor_) return;
  const uint32_t recno = cursor_->recno();
  if (recno == calculatedRecno_ && cursor_->file().generation() == calculatedGeneration_) return;
  calculatedRecno_ = recno;
  calculatedGeneration_ = cursor_->file().generation();
  std::fill(calcRow_.begin(), calcRow_.end(), QString());
  if (!recno) return;
  const TDataSetState saved = state_;
  state_ = dsCalcFields;
  try {
    OnCalcFields(this);
  } catch (...) {
    state_ = saved;
    throw;
  }
  state_ = saved;
}

QStringList TTable::RowValues(int index, const std::vector<TField*>& fields) {
  QStringList values;
  requireActive();
  const uint32_t recno = index >= 0 ? cursor_->recnoAt(size_t(index)) : 0;
  if (!recno) return values;
  // Materialise the row as the current one for the handler, then put back.
  std::vector<QString> savedCalc = calcRow_;
  const TDataSetState savedState = state_;
  calcRecord_ = cursor_->file().record(recno);
  try {
    if (OnCalcFields && calcCount_ > 0) {
      std::fill(calcRow_.begin(), calcRow_.end(), QString());
      state_ = dsCalcFields;
      OnCalcFields(this);
      state_ = savedState;
    }
    for (TField* f : fields) values << f->AsString();
  } catch (...) {
    calcRecord_ = nullptr;
    calcRow_ = std::move(savedCalc);
    state_ = savedState;
    throw;
  }
  calcRecord_ = nullptr;
  calcRow_ = std::move(savedCalc);
  return values;
}
