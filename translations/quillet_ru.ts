<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="ru_RU">
<context>
    <name>PageCode</name>
    <message>
        <source>its key line is neither &quot;site SECRET&quot; nor &quot;job ID SECRET&quot;</source>
        <translation>его строка ключа не имеет вида &quot;site SECRET&quot; или &quot;job ID SECRET&quot;</translation>
    </message>
    <message>
        <source>the secret must be 64 hexadecimal digits and a job id a number below 16777216</source>
        <translation>секрет должен состоять из 64 шестнадцатеричных цифр, а номер задания быть числом меньше 16777216</translation>
    </message>
    <message>
        <source>it holds no key line</source>
        <translation>в нём нет строки ключа</translation>
    </message>
    <message>
        <source>Page-code key file %1 doesn&apos;t exist</source>
        <translation>Файл ключа кодов страниц %1 не существует</translation>
    </message>
    <message>
        <source>Can not read page-code key file %1</source>
        <translation>Не удаётся прочитать файл ключа кодов страниц %1</translation>
    </message>
    <message>
        <source>Page-code key file %1 is not a key: %2</source>
        <translation>Файл ключа кодов страниц %1 не является ключом: %2</translation>
    </message>
    <message>
        <source>Key file %1 already exists; it is not replaced</source>
        <translation>Файл ключа %1 уже существует; он не заменяется</translation>
    </message>
    <message>
        <source>Can not create key file %1: %2</source>
        <translation>Не удаётся создать файл ключа %1: %2</translation>
    </message>
    <message>
        <source>Page codes need the job&apos;s number, but job-id is &quot;%1&quot;</source>
        <translation>Для кодов страниц нужен номер задания, а job-id равен &quot;%1&quot;</translation>
    </message>
    <message>
        <source>Page-code key file %1 holds the key of job %2, not of job %3</source>
        <translation>Файл ключа кодов страниц %1 содержит ключ задания %2, а не задания %3</translation>
    </message>
</context>
<context>
    <name>Quillet</name>
    <message>
        <source>Can not open input file %1</source>
        <translation>Не удаётся открыть входной файл %1</translation>
    </message>
    <message>
        <source>Can not open template file %1</source>
        <translation>Не удаётся открыть файл шаблона %1</translation>
    </message>
    <message>
        <source>Can not open variables file %1</source>
        <translation>Не удаётся открыть файл переменных %1</translation>
    </message>
    <message>
        <source>Can not open output file %1 for writing</source>
        <translation>Не удаётся открыть выходной файл %1 для записи</translation>
    </message>
    <message>
        <source>No pages was found in file %1</source>
        <translation>В файле %1 не найдено ни одной страницы</translation>
    </message>
    <message>
        <source>The document has a line longer than %1 bytes, which cannot be read</source>
        <translation>В документе есть строка длиннее %1 байт, её невозможно прочитать</translation>
    </message>
    <message>
        <source>The document cannot be read to its end</source>
        <translation>Документ невозможно прочитать до конца</translation>
    </message>
    <message>
        <source>Can not open marker font file %1</source>
        <translation>Не удаётся открыть файл шрифта маркера %1</translation>
    </message>
    <message>
        <source>Input file %1 is not a regular file</source>
        <translation>Входной файл %1 не является обычным файлом</translation>
    </message>
    <message>
        <source>Input file %1 and %2 are the same file</source>
        <translation>Входной файл %1 и %2 — один и тот же файл</translation>
    </message>
    <message>
        <source>Can not write variables file %1</source>
        <translation>Не удаётся записать файл переменных %1</translation>
    </message>
    <message>
        <source>Can not write output file %1</source>
        <translation>Не удаётся записать выходной файл %1</translation>
    </message>
    <message>
        <source>Can not create a temporary file for input file %1</source>
        <translation>Не удаётся создать временный файл для входного файла %1</translation>
    </message>
    <message>
        <source>Can not write the copy of input file %1 without its earlier marks</source>
        <translation>Не удаётся записать копию входного файла %1 без его прежней маркировки</translation>
    </message>
    <message>
        <source>Input file %1 holds an earlier mark without its end</source>
        <translation>Входной файл %1 содержит прежнюю маркировку без её конца</translation>
    </message>
    <message>
        <source>Marker template %1 holds more than %2 marker strings</source>
        <translation>Шаблон маркера %1 содержит больше %2 строк маркера</translation>
    </message>
    <message>
        <source>Marker template %1 draws nothing on page %2 of %3</source>
        <translation>Шаблон маркера %1 ничего не печатает на странице %2 из %3</translation>
    </message>
    <message>
        <source>The first line of input file %1 is not a comment that ends at its line feed</source>
        <translation>Первая строка входного файла %1 не является комментарием, который заканчивается переводом строки</translation>
    </message>
</context>
<context>
    <name>main</name>
    <message>
        <source>Can not read marker variables file %1</source>
        <translation>Не удаётся прочитать файл переменных маркера %1</translation>
    </message>
    <message>
        <source>Can not find marker definition file %1</source>
        <translation>Не найден файл определений маркера %1</translation>
    </message>
    <message>
        <source>Can not read marker definition file %1</source>
        <translation>Не удаётся прочитать файл определений маркера %1</translation>
    </message>
    <message>
        <source>Can not read marker format file %1</source>
        <translation>Не удаётся прочитать файл формата маркера %1</translation>
    </message>
    <message>
        <source>PostScript file Marker Filter</source>
        <translation>Фильтр маркировки PostScript-файлов</translation>
    </message>
    <message>
        <source>Input PostScript file name</source>
        <translation>Имя входного PostScript-файла</translation>
    </message>
    <message>
        <source>Template file name marker</source>
        <translation>Имя файла шаблона маркера</translation>
    </message>
    <message>
        <source>File name with marker variable values</source>
        <translation>Имя файла со значениями переменных маркера</translation>
    </message>
    <message>
        <source>Output PostScript file name</source>
        <translation>Имя выходного PostScript-файла</translation>
    </message>
    <message>
        <source>Enable duplex mode</source>
        <translation>Включить режим двусторонней печати</translation>
    </message>
    <message>
        <source>Input file %1 doesn&apos;t exist</source>
        <translation>Входной файл %1 не существует</translation>
    </message>
    <message>
        <source>Marker template file %1 doesn&apos;t exist</source>
        <translation>Файл шаблона маркера %1 не существует</translation>
    </message>
    <message>
        <source>Variables file %1 doesn&apos;t exist</source>
        <translation>Файл переменных %1 не существует</translation>
    </message>
    <message>
        <source>Variables file %1 is not a regular file</source>
        <translation>Файл переменных %1 не является обычным файлом</translation>
    </message>
    <message>
        <source>Marker definition file %1 is not a regular file</source>
        <translation>Файл определений маркера %1 не является обычным файлом</translation>
    </message>
    <message>
        <source>Marker template file %1 is not a regular file</source>
        <translation>Файл шаблона маркера %1 не является обычным файлом</translation>
    </message>
    <message>
        <source>Can not read glyph list %1: the marker would not print</source>
        <translation>Не удаётся прочитать список глифов %1: маркер не был бы напечатан</translation>
    </message>
    <message>
        <source>Glyph list %1 names no glyphs: the marker would not print</source>
        <translation>Список глифов %1 не содержит ни одного глифа: маркер не был бы напечатан</translation>
    </message>
    <message>
        <source>Can not read charset file %1: the marker would not print</source>
        <translation>Не удаётся прочитать файл наборов символов %1: маркер не был бы напечатан</translation>
    </message>
    <message>
        <source>Charset file %1 has a bad line: the marker would not print</source>
        <translation>В файле наборов символов %1 есть неверная строка: маркер не был бы напечатан</translation>
    </message>
    <message>
        <source>Charset file %1 describes no charsets: the marker would not print</source>
        <translation>Файл наборов символов %1 не описывает ни одного набора: маркер не был бы напечатан</translation>
    </message>
    <message>
        <source>Can not read marker font file %1: the marker would not print</source>
        <translation>Не удаётся прочитать файл шрифта маркера %1: маркер не был бы напечатан</translation>
    </message>
</context>
<context>
    <name>queue</name>
    <message>
        <source>Try &quot;quillet-queue --help&quot;.</source>
        <translation>Справка: &quot;quillet-queue --help&quot;.</translation>
    </message>
    <message>
        <source>the page-code key %1 that %2 names does not exist: every job would be refused</source>
        <translation>ключ кодов страниц %1, указанный в %2, не существует: каждое задание было бы отклонено</translation>
    </message>
    <message>
        <source>make it as root with quillet-verify --new-key %1</source>
        <translation>создайте его от имени root: quillet-verify --new-key %1</translation>
    </message>
    <message>
        <source>it is the key of one job, not the site&apos;s key</source>
        <translation>это ключ одного задания, а не ключ площадки</translation>
    </message>
    <message>
        <source>the page-code key %1 cannot be read as the site&apos;s key (%2): every job would be refused</source>
        <translation>ключ кодов страниц %1 не читается как ключ площадки (%2): каждое задание было бы отклонено</translation>
    </message>
    <message>
        <source>point %1 in %2 at the site&apos;s key file, or make a new key with quillet-verify --new-key FILE</source>
        <translation>укажите в %1 файла %2 файл ключа площадки или создайте новый ключ: quillet-verify --new-key ФАЙЛ</translation>
    </message>
    <message>
        <source>the page-code key %1 is open to others than root (owner %2, mode %3): whoever reads it can make codes of any job</source>
        <translation>ключ кодов страниц %1 доступен не только root (владелец %2, права %3): прочитавший его может делать коды любого задания</translation>
    </message>
    <message>
        <source>chown root:root %1 &amp;&amp; chmod 0600 %1</source>
        <translation>chown root:root %1 &amp;&amp; chmod 0600 %1</translation>
    </message>
    <message>
        <source>give the queue a PPD with two-sided printing (lpadmin -p %1 -P %2), or remove %3=1 from its variables</source>
        <translation>дайте очереди PPD с двусторонней печатью (lpadmin -p %1 -P %2) или уберите %3=1 из её переменных</translation>
    </message>
    <message>
        <source>the print server&apos;s configuration cannot be read to check who may print on the queue (%1)</source>
        <translation>не удаётся прочитать конфигурацию сервера печати, чтобы проверить, кто может печатать в очередь (%1)</translation>
    </message>
    <message>
        <source>run quillet-queue as root on the print server</source>
        <translation>запустите quillet-queue от имени root на сервере печати</translation>
    </message>
    <message>
        <source>the queue takes jobs from users who did not authenticate (operation policy %1): its marks and audit lines could not name who printed</source>
        <translation>очередь принимает задания от пользователей без аутентификации (политика операций %1): маркировка и строки аудита не смогли бы назвать, кто печатал</translation>
    </message>
    <message>
        <source>run quillet-queue create %1 again, which gives it the policy %2 that requires a valid user, or require one in the policy&apos;s &lt;Limit Create-Job Print-Job&gt; in cupsd.conf</source>
        <translation>запустите quillet-queue create %1 ещё раз: она даст очереди политику %2, требующую действительного пользователя, или потребуйте его в &lt;Limit Create-Job Print-Job&gt; политики в cupsd.conf</translation>
    </message>
    <message>
        <source>idle</source>
        <translation>свободна</translation>
    </message>
    <message>
        <source>printing</source>
        <translation>печатает</translation>
    </message>
    <message>
        <source>stopped</source>
        <translation>остановлена</translation>
    </message>
    <message>
        <source>accepting jobs</source>
        <translation>принимает задания</translation>
    </message>
    <message>
        <source>rejecting jobs</source>
        <translation>отклоняет задания</translation>
    </message>
    <message>
        <source>Can not ask the print server about %1: %2</source>
        <translation>Не удаётся запросить у сервера печати сведения об очереди %1: %2</translation>
    </message>
    <message>
        <source>%1: %2; fix: %3</source>
        <translation>%1: %2; исправление: %3</translation>
    </message>
    <message>
        <source>%1: ready: its jobs are marked with the label &quot;%2&quot;</source>
        <translation>%1: готова: её задания маркируются грифом &quot;%2&quot;</translation>
    </message>
    <message>
        <source>Can not ask the print server for its queues: %1</source>
        <translation>Не удаётся запросить у сервера печати список очередей: %1</translation>
    </message>
    <message>
        <source>%1: label &quot;%2&quot;, %3</source>
        <translation>%1: гриф &quot;%2&quot;, %3</translation>
    </message>
    <message>
        <source>Can not write %1: %2</source>
        <translation>Не удаётся записать %1: %2</translation>
    </message>
    <message>
        <source>updated %1</source>
        <translation>обновлён %1</translation>
    </message>
    <message>
        <source>wrote %1</source>
        <translation>записан %1</translation>
    </message>
    <message>
        <source>kept %1, which is already right</source>
        <translation>оставлен %1: он уже верен</translation>
    </message>
    <message>
        <source>Can not give %1 owner root and mode %2</source>
        <translation>Не удаётся назначить %1 владельца root и права %2</translation>
    </message>
    <message>
        <source>Can not read the template %1</source>
        <translation>Не удаётся прочитать шаблон %1</translation>
    </message>
    <message>
        <source>Can not read the shipped definitions %1</source>
        <translation>Не удаётся прочитать поставляемые определения %1</translation>
    </message>
    <message>
        <source>made the page-code key %1</source>
        <translation>создан ключ кодов страниц %1</translation>
    </message>
    <message>
        <source>The page-code key %1 is not a site key, and it is not replaced: %2</source>
        <translation>Ключ кодов страниц %1 не является ключом площадки и не заменяется: %2</translation>
    </message>
    <message>
        <source>kept the page-code key %1</source>
        <translation>оставлен ключ кодов страниц %1</translation>
    </message>
    <message>
        <source>Can not read the print server&apos;s configuration: %1</source>
        <translation>Не удаётся прочитать конфигурацию сервера печати: %1</translation>
    </message>
    <message>
        <source>kept the policy %1 of the server&apos;s cupsd.conf</source>
        <translation>оставлена политика %1 в cupsd.conf сервера</translation>
    </message>
    <message>
        <source>Can not change the print server&apos;s configuration: %1</source>
        <translation>Не удаётся изменить конфигурацию сервера печати: %1</translation>
    </message>
    <message>
        <source>The print server did not come back after its configuration changed</source>
        <translation>Сервер печати не вернулся после изменения конфигурации</translation>
    </message>
    <message>
        <source>added the policy %1 to the server&apos;s cupsd.conf (jobs only from authenticated users); the server restarted</source>
        <translation>в cupsd.conf сервера добавлена политика %1 (задания только от прошедших аутентификацию пользователей); сервер перезапущен</translation>
    </message>
    <message>
        <source>lpadmin %1 failed: %2</source>
        <translation>lpadmin %1 завершилась с ошибкой: %2</translation>
    </message>
    <message>
        <source>ran lpadmin %1</source>
        <translation>выполнено lpadmin %1</translation>
    </message>
    <message>
        <source>quillet-queue create must run as root</source>
        <translation>quillet-queue create нужно запускать от имени root</translation>
    </message>
    <message>
        <source>Can not make the folder %1</source>
        <translation>Не удаётся создать папку %1</translation>
    </message>
    <message>
        <source>The print server has no queue %1</source>
        <translation>На сервере печати нет очереди %1</translation>
    </message>
    <message>
        <source>Can not print the test page on %1: %2</source>
        <translation>Не удаётся напечатать тестовую страницу в очередь %1: %2</translation>
    </message>
    <message>
        <source>printed the test page %1 as job %2-%3</source>
        <translation>тестовая страница %1 отправлена как задание %2-%3</translation>
    </message>
    <message>
        <source>Job %1-%2 has not finished after %3 seconds</source>
        <translation>Задание %1-%2 не завершилось за %3 секунд</translation>
    </message>
    <message>
        <source>job %1-%2 left no audit line in the print server&apos;s log: the log keeps them with LogLevel notice or more verbose in cupsd.conf, or the queue does not run quillet</source>
        <translation>задание %1-%2 не оставило строки аудита в журнале сервера печати: журнал хранит их при LogLevel notice или подробнее в cupsd.conf, либо очередь не запускает quillet</translation>
    </message>
    <message>
        <source>the print server has no queue %1</source>
        <translation>на сервере печати нет очереди %1</translation>
    </message>
    <message>
        <source>make it with quillet-queue create %1 DEVICE-URI --label LABEL</source>
        <translation>создайте её: quillet-queue create %1 URI-УСТРОЙСТВА --label ГРИФ</translation>
    </message>
    <message>
        <source>the queue&apos;s device URI %1 does not start with %2, so its jobs are printed without marks</source>
        <translation>URI устройства очереди %1 не начинается с %2, поэтому её задания печатаются без маркировки</translation>
    </message>
    <message>
        <source>lpadmin -p %1 -v %2%3</source>
        <translation>lpadmin -p %1 -v %2%3</translation>
    </message>
    <message>
        <source>correct the queue&apos;s files in %1</source>
        <translation>исправьте файлы очереди в %1</translation>
    </message>
    <message>
        <source>Checks, lists, makes and tests print queues that mark their jobs with quillet.

  check QUEUE     tell whether a job on the queue would be marked as intended
  list            the marked queues with their label and state
  create QUEUE DEVICE-URI --label LABEL [--template FILE] [--back-pages] [--page-codes]
                  make the queue and its files, or make them right
  test QUEUE      print a test page and show its audit line</source>
        <translation>Проверяет, перечисляет, создаёт и испытывает очереди печати, маркирующие задания с помощью quillet.

  check ОЧЕРЕДЬ   сказать, будет ли задание в очереди промаркировано как задумано
  list            маркирующие очереди с их грифом и состоянием
  create ОЧЕРЕДЬ URI-УСТРОЙСТВА --label ГРИФ [--template ФАЙЛ] [--back-pages] [--page-codes]
                  создать очередь и её файлы или исправить их
  test ОЧЕРЕДЬ    напечатать тестовую страницу и показать её строку аудита</translation>
    </message>
    <message>
        <source>check, list, create or test</source>
        <translation>check, list, create или test</translation>
    </message>
    <message>
        <source>The security label of the queue&apos;s jobs</source>
        <translation>Гриф заданий очереди</translation>
    </message>
    <message>
        <source>Marker template to copy (default: the queue&apos;s own, else the shipped example)</source>
        <translation>Шаблон маркировки для копирования (по умолчанию собственный шаблон очереди, иначе поставляемый пример)</translation>
    </message>
    <message>
        <source>Mark on a back page after every page (two-sided printing)</source>
        <translation>Маркировать на оборотной странице после каждой страницы (двусторонняя печать)</translation>
    </message>
    <message>
        <source>Print page codes: the site key is made and named when missing</source>
        <translation>Печатать коды страниц: ключ площадки создаётся и указывается, если его нет</translation>
    </message>
    <message>
        <source>--label, --template, --back-pages and --page-codes belong to create</source>
        <translation>--label, --template, --back-pages и --page-codes относятся к create</translation>
    </message>
    <message>
        <source>list takes no arguments</source>
        <translation>list не принимает аргументов</translation>
    </message>
    <message>
        <source>%1 takes one queue name</source>
        <translation>%1 принимает одно имя очереди</translation>
    </message>
    <message>
        <source>&quot;%1&quot; is not a queue name</source>
        <translation>&quot;%1&quot; не является именем очереди</translation>
    </message>
    <message>
        <source>create takes a queue name and a device URI</source>
        <translation>create принимает имя очереди и URI устройства</translation>
    </message>
    <message>
        <source>create needs one --label LABEL on one line</source>
        <translation>create нужен один --label ГРИФ в одну строку</translation>
    </message>
    <message>
        <source>--template takes one file name, once</source>
        <translation>--template принимает одно имя файла, один раз</translation>
    </message>
    <message>
        <source>Give a command: check, list, create or test</source>
        <translation>Укажите команду: check, list, create или test</translation>
    </message>
    <message>
        <source>Unknown command &quot;%1&quot;</source>
        <translation>Неизвестная команда &quot;%1&quot;</translation>
    </message>
    <message>
        <source>%1 at %2, so the backend cannot choose what to send it</source>
        <translation>%1 по адресу %2, поэтому модуль печати не может выбрать, что ему отправлять</translation>
    </message>
    <message>
        <source>switch the printer on and check that %1 reaches it, or name its format with %2 in the queue&apos;s variables</source>
        <translation>включите принтер и проверьте, что %1 до него доходит, или укажите его формат параметром %2 в переменных очереди</translation>
    </message>
    <message>
        <source>point the queue at a printer that takes PostScript, PDF, PWG raster or Apple raster (lpadmin -p %1 -v quillet:URI), or correct %2 in its variables</source>
        <translation>направьте очередь на принтер, который принимает PostScript, PDF, PWG raster или Apple raster (lpadmin -p %1 -v quillet:URI), или исправьте %2 в её переменных</translation>
    </message>
    <message>
        <source>the audit log %1 cannot be written, so every job is refused</source>
        <translation>журнал аудита %1 недоступен для записи, поэтому каждое задание отклоняется</translation>
    </message>
    <message>
        <source>run quillet-queue as root, and make %1 a folder that root may write to (install -d -m 700 %1)</source>
        <translation>запустите quillet-queue от имени root и сделайте %1 папкой, в которую root может писать (install -d -m 700 %1)</translation>
    </message>
    <message>
        <source>set DefaultAuthType Basic in place of None in the server&apos;s cupsd.conf, so that users of other machines can give their password (under None the server takes none); the server restarted</source>
        <translation>в cupsd.conf сервера DefaultAuthType None заменён на Basic, чтобы пользователи других машин могли ввести свой пароль (при None сервер паролей не принимает); сервер перезапущен</translation>
    </message>
</context>
<context>
    <name>queuecheck</name>
    <message>
        <source>the queue has no template (%1/%2.tmpl or default.tmpl)</source>
        <translation>у очереди нет шаблона (%1/%2.tmpl или default.tmpl)</translation>
    </message>
    <message>
        <source>put the marker template into %1/%2.tmpl (owner root, mode 0600), or run quillet-queue create %2 DEVICE-URI --label LABEL</source>
        <translation>поместите шаблон маркировки в %1/%2.tmpl (владелец root, права 0600) или запустите quillet-queue create %2 URI-УСТРОЙСТВА --label ГРИФ</translation>
    </message>
    <message>
        <source>the queue has no variables file (%1/%2.vars or default.vars): its label would be empty</source>
        <translation>у очереди нет файла переменных (%1/%2.vars или default.vars): её гриф был бы пустым</translation>
    </message>
    <message>
        <source>write the label into %1/%2.vars (LABEL_NAME=..., owner root, mode 0600), or run quillet-queue create %2 DEVICE-URI --label LABEL</source>
        <translation>запишите гриф в %1/%2.vars (LABEL_NAME=..., владелец root, права 0600) или запустите quillet-queue create %2 URI-УСТРОЙСТВА --label ГРИФ</translation>
    </message>
    <message>
        <source>there is no marker definitions file (%1)</source>
        <translation>нет файла определений маркировки (%1)</translation>
    </message>
    <message>
        <source>install quillet again, which ships the definitions</source>
        <translation>установите quillet заново: он поставляет определения</translation>
    </message>
    <message>
        <source>the marker definitions %1 do not set %2=1 (print-safe output); a site file replaces the shipped one, so it must hold every shipped line</source>
        <translation>определения маркировки %1 не задают %2=1 (безопасный для печати вывод); файл площадки заменяет поставляемый, поэтому должен содержать все его строки</translation>
    </message>
    <message>
        <source>make %1 a copy of the shipped definitions followed by the site&apos;s own lines, none of which sets %2 again (quillet-queue create does so)</source>
        <translation>сделайте %1 копией поставляемых определений, за которой следуют собственные строки площадки, ни одна из которых не задаёт %2 снова (так делает quillet-queue create)</translation>
    </message>
    <message>
        <source>the template %1 holds no marker strings</source>
        <translation>шаблон %1 не содержит строк маркировки</translation>
    </message>
    <message>
        <source>write the marks into %1, or run quillet-queue create %2 DEVICE-URI --label LABEL --template FILE</source>
        <translation>запишите маркировку в %1 или запустите quillet-queue create %2 URI-УСТРОЙСТВА --label ГРИФ --template ФАЙЛ</translation>
    </message>
    <message>
        <source>the template %1 prints %2, which neither %3 nor the marker definitions set</source>
        <translation>шаблон %1 печатает %2, который не задают ни %3, ни определения маркировки</translation>
    </message>
    <message>
        <source>add the line %1=VALUE to %2</source>
        <translation>добавьте строку %1=ЗНАЧЕНИЕ в %2</translation>
    </message>
</context>
<context>
    <name>verify</name>
    <message>
        <source>Try &quot;quillet-verify --help&quot;.</source>
        <translation>Попробуйте &quot;quillet-verify --help&quot;.</translation>
    </message>
    <message>
        <source>Can not read marker definition file %1</source>
        <translation>Не удаётся прочитать файл определений маркера %1</translation>
    </message>
    <message>
        <source>No page-code key: %1 does not set %2; give --key FILE</source>
        <translation>Нет ключа кодов страниц: %1 не задаёт %2; укажите --key ФАЙЛ</translation>
    </message>
    <message>
        <source>a code has 24 characters besides &quot;-&quot;</source>
        <translation>код состоит из 24 символов, не считая &quot;-&quot;</translation>
    </message>
    <message>
        <source>it holds a character that codes never use</source>
        <translation>в нём есть символ, которого в кодах не бывает</translation>
    </message>
    <message>
        <source>no code is spelled like this</source>
        <translation>так не пишется ни один код</translation>
    </message>
    <message>
        <source>New page-code key written to %1</source>
        <translation>Новый ключ кодов страниц записан в %1</translation>
    </message>
    <message>
        <source>%1: NOT authentic</source>
        <translation>%1: НЕ подлинный</translation>
    </message>
    <message>
        <source>%1: NOT authentic (%2)</source>
        <translation>%1: НЕ подлинный (%2)</translation>
    </message>
    <message>
        <source>%1: authentic: job %2, page %3, copy %4, marked on %5</source>
        <translation>%1: подлинный: задание %2, страница %3, экземпляр %4, маркирован %5</translation>
    </message>
    <message>
        <source>Checks the page codes that quillet prints, or makes a new key</source>
        <translation>Проверяет коды страниц, которые печатает quillet, или создаёт новый ключ</translation>
    </message>
    <message>
        <source>Page code as printed; any case, &quot;-&quot; optional</source>
        <translation>Код страницы, как он напечатан; регистр любой, &quot;-&quot; необязателен</translation>
    </message>
    <message>
        <source>Key file to check with (default: the one the marker definitions name)</source>
        <translation>Файл ключа для проверки (по умолчанию тот, что назван в определениях маркера)</translation>
    </message>
    <message>
        <source>Write a new random site key to a new file of mode 0600</source>
        <translation>Записать новый случайный ключ площадки в новый файл с правами 0600</translation>
    </message>
    <message>
        <source>--new-key takes one file and nothing else</source>
        <translation>--new-key принимает один файл и ничего больше</translation>
    </message>
    <message>
        <source>Give the codes to check, or --new-key FILE</source>
        <translation>Укажите коды для проверки или --new-key ФАЙЛ</translation>
    </message>
    <message>
        <source>--key takes one file name, once</source>
        <translation>--key принимает одно имя файла, один раз</translation>
    </message>
    <message>
        <source>--log takes one file name, once</source>
        <translation>--log принимает одно имя файла, один раз</translation>
    </message>
    <message>
        <source>Audit log to look up the jobs&apos; records in (default: the one the marker definitions name, else %1)</source>
        <translation>Журнал аудита, в котором искать записи заданий (по умолчанию тот, что указан в определениях маркеров, иначе %1)</translation>
    </message>
</context>
</TS>
