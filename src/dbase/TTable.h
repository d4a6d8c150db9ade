// TTable: a dBase table as the host's data-access layer knows it — a
// database (alias or directory) and a file name, declared index tags, a filter
// with its on/off switch, a cursor, an edit buffer, bookmarks, calculated
// fields and the DisableControls/EnableControls counter that silences grids.
//
// Engine errors reach the caller as dbase::Error (file or filter named).
//
// Calculated fields are recomputed by OnCalcFields for every row the table
// materialises: the current row after every move, and each row a grid reads
// through TDataSource. While the handler runs, the table's fields read that
// row and State() is dsCalcFields.
#pragma once

#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <functional>
#include <memory>
#include <vector>

#include "dbase/core/error.h"

namespace dbase {
class Cursor;
class DbfFile;
class MdxTag;
class WriteBatch;
struct FieldDescriptor;
}  // namespace dbase

class TTable;

enum TDataSetState { dsInactive, dsBrowse, dsEdit, dsInsert, dsCalcFields };

struct TBookmark {
  uint32_t recno = 0;
  bool isValid() const { return recno != 0; }
};

// A field of the table by name: a stored field of the file or a calculated one.
class TField {
 public:
  const QString& FieldName() const { return name_; }
  bool Calculated() const { return calculated_; }
  int Size() const;
  TTable* DataSet() const { return table_; }

  QString AsString() const;
  int AsInteger() const;
  double AsFloat() const;
  bool AsBoolean() const;
  bool IsNull() const;

  // Writes go to the edit buffer (dsEdit, dsInsert) or, for calculated
  // fields, to the row being calculated (dsCalcFields).
  void SetAsString(const QString& value);
  void SetAsInteger(int value);
  void SetAsFloat(double value);
  void SetAsBoolean(bool value);
  void Clear();

 private:
  friend class TTable;
  TField(TTable* table, QString name, bool calculated, int size)
      : table_(table), name_(std::move(name)), calculated_(calculated), size_(size) {}
  const dbase::FieldDescriptor& descriptor() const;
  TTable* table_;
  QString name_;
  bool calculated_;
  int size_;        // of a calculated field
  int index_ = -1;  // stored field: index in the file; calculated: slot
};

class TTable : public QObject {
  Q_OBJECT
 public:
  explicit TTable(QObject* owner = nullptr);
  ~TTable() override;

  // Design time: where the table lives, its tags and its fields.
  QString DatabaseName() const { return databaseName_; }
  void SetDatabaseName(const QString& aliasOrDirectory);
  QString TableName() const { return tableName_; }
  void SetTableName(const QString& fileName);
  void AddIndexDef(const QString& name, const QStringList& fields);
  QStringList IndexDefNames() const;
  QString IndexName() const { return indexName_; }
  void SetIndexName(const QString& name);  // "" = physical order
  // Fields of the index in force: those declared for it, or for a tag of
  // the production index declared nowhere, those its expression reads.
  QStringList IndexFields() const;
  TField* AddField(const QString& name);   // a persistent field object
  TField* AddCalcField(const QString& name, int size);
  std::function<void(TTable*)> OnCalcFields;
  int Tag = 0;

  // Opening.
  void Open();
  void Close();
  bool Active() const { return cursor_ != nullptr; }
  TDataSetState State() const { return state_; }
  QString FilePath() const;  // of the open file

  // Filter.
  QString Filter() const { return filter_; }
  void SetFilter(const QString& text);
  bool Filtered() const { return filtered_; }
  void SetFiltered(bool on);

  // Navigation.
  void First();
  void Next();
  void Prior();
  void Last();
  bool Eof() const;
  bool Bof() const;
  bool IsEmpty();
  int RecNo();        // physical record number of the current row
  int RecordCount();  // rows in the current view
  void Refresh();

  // Search on the current index (one value per leading field of the tag):
  // FindKey positions on the first row whose fields equal the values and
  // returns true, or leaves the cursor where it was and returns false.
  // FindNearest positions on the first row at or after the values (the last
  // value may be the start of a text), or on the last row when none is.
  bool FindKey(const QVariantList& values);
  bool FindNearest(const QVariantList& values);

  TBookmark GetBookmark();
  void GotoBookmark(const TBookmark& bookmark);  // throws when the row is not in view
  bool BookmarkValid(const TBookmark& bookmark);

  // Editing.
  void Append();
  void Edit();
  void Post();
  void Cancel();

  void DisableControls();
  void EnableControls();
  bool ControlsDisabled() const { return disableCount_ > 0; }

  TField* FieldByName(const QString& name);
  TField* FindField(const QString& name);
  const std::vector<std::unique_ptr<TField>>& Fields() const { return fields_; }
  // Stored fields of the open file, then the calculated ones.
  QStringList FieldNames() const;
  // A run of posts other programs see whole, the table's index file written
  // once at its end (dbase::WriteBatch): the run lasts as long as the object.
  std::unique_ptr<dbase::WriteBatch> BeginWriteBatch();
  // What runs ended in the background (WriteBatch::finishInBackground) left
  // to write reaches the disk before this returns; throws dbase::Error when
  // it cannot (the index is then written anew from the rows).
  void FlushBuffers();

  // For TDataSource: the values of these fields at a row of the view,
  // calculated fields included, without moving the cursor.
  QStringList RowValues(int index, const std::vector<TField*>& fields);
  int CurrentIndex();
  // Moves to the row at this position of the view (what a grid's click does).
  void GotoIndex(int index);

 signals:
  void dataSetChanged();  // opened, closed, refiltered, reordered, rows changed
  void currentChanged();  // the cursor moved to another row

 private:
  friend class TField;
  dbase::DbfFile& file() const;
  void requireActive() const;
  void checkBrowseMode();
  void applyIndex();
  struct IndexDef;
  const IndexDef* declaredIndex(const QString& name) const;
  std::vector<int> fieldIndexes(const IndexDef& def) const;
  dbase::MdxTag* productionTag(const QString& name) const;
  void applyFilter();
  void calculate();
  void afterMove();
  void notifyDataSet();
  const char* activeRecord() const;
  char* writableRecord(const TField& field);
  QString calcValue(int slot) const;
  void setCalcValue(int slot, const QString& value);

  QString databaseName_;
  QString tableName_;
  QString indexName_;
  struct IndexDef {
    QString name;
    QStringList fields;
  };
  std::vector<IndexDef> indexDefs_;
  std::vector<std::unique_ptr<TField>> fields_;
  int calcCount_ = 0;
  QString filter_;
  bool filtered_ = false;
  TDataSetState state_ = dsInactive;
  int disableCount_ = 0;
  bool pendingChange_ = false;

  std::unique_ptr<dbase::Cursor> cursor_;
  std::string buffer_;             // edit / insert buffer
  std::vector<QString> calcRow_;   // calculated values of the active row
  const char* calcRecord_ = nullptr;  // row being calculated for a grid
  uint32_t calculatedRecno_ = 0;
  uint64_t calculatedGeneration_ = 0;
};
