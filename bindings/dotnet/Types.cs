// TraceSource.TraceEvent is compiled only where TRACE is defined.
#define TRACE
using System;
using System.Collections.Generic;
using System.Diagnostics;
using System.Linq;

namespace DataExchange
{
    /// <summary>The library's result codes (dataExchangeResult).</summary>
    public enum Result
    {
        /// <summary>Done.</summary>
        Success = 0,
        /// <summary>A required argument is null or empty.</summary>
        InvalidArgument = 1,
        /// <summary>Reading failed; for an upload: no such file or folder.</summary>
        ReadFailed = 10,
        /// <summary>The value was refused; the stored value is unchanged.</summary>
        WriteFailed = 11,
        /// <summary>No option of that name, or of another type.</summary>
        InvalidOption = 20,
        /// <summary>Write-only, read-only, or no such value.</summary>
        NotAvailable = 21,
        /// <summary>The options do not describe a valid upload.</summary>
        HandlerConfigurationFailed = 30,
        /// <summary>Packing or every delivery failed, or the upload was cancelled.</summary>
        DataHandlingFailed = 40,
        /// <summary>The value was stored, but clipped to the option's bounds.</summary>
        ValueCropped = -20,
        /// <summary>A text did not fit the buffer.</summary>
        BufferTooSmall = -21,
    }

    /// <summary>The C type of an option, which selects the typed Get and Set methods.</summary>
    public enum OptionType
    {
        /// <summary>Not one of the types below.</summary>
        Undefined = -1,
        /// <summary>int.</summary>
        Int32 = 0,
        /// <summary>uint.</summary>
        UInt32 = 1,
        /// <summary>ulong.</summary>
        UInt64 = 2,
        /// <summary>string (UTF-8 in the library).</summary>
        String = 3,
    }

    /// <summary>Which value of an option is read.</summary>
    public enum ValueKind
    {
        /// <summary>The value stored now.</summary>
        Current = 0,
        /// <summary>The lower bound.</summary>
        Minimum = 1,
        /// <summary>The upper bound.</summary>
        Maximum = 2,
        /// <summary>The value of a new handle.</summary>
        Default = 3,
    }

    /// <summary>Values of the "Location" option: where the data goes.</summary>
    public enum Location
    {
        /// <summary>Moved into the shared network folder.</summary>
        SharedFolder = 1,
        /// <summary>Posted to the processing server.</summary>
        Server = 2,
        /// <summary>The shared folder first, the server only if that fails (the default).</summary>
        SharedFolderThenServer = 3,
    }

    /// <summary>Values of the "Data type" option: the kind of data sent.</summary>
    public enum DataType
    {
        /// <summary>A precalibration run.</summary>
        Precalibration = 0,
        /// <summary>CMM data.</summary>
        Cmm = 1,
        /// <summary>Forest data.</summary>
        Forest = 2,
        /// <summary>AVT data (the "Report" option applies).</summary>
        Avt = 3,
        /// <summary>A data-logger recording.</summary>
        Datalogger = 4,
        /// <summary>CIT data.</summary>
        Cit = 5,
        /// <summary>Log files.</summary>
        LogFile = 6,
    }

    /// <summary>The stages an upload goes through, as progress reports name them.</summary>
    public enum Stage
    {
        /// <summary>Bytes of the source read, of the bytes of the files to pack or copy.</summary>
        Packing = 1,
        /// <summary>0 of 1, then 1 of 1.</summary>
        SharedFolder = 2,
        /// <summary>Bytes sent, of the packed item's size, then of the whole request's.</summary>
        Upload = 3,
        /// <summary>0 of 1 while the job request runs, then 1 of 1.</summary>
        JobRequest = 4,
        /// <summary>Milliseconds waited, of the wait before a retry.</summary>
        RetryWait = 5,
    }

    /// <summary>What an option allows.</summary>
    [Flags]
    public enum OptionAccess
    {
        /// <summary>Neither.</summary>
        None = 0,
        /// <summary>The option can be read.</summary>
        Readable = 1,
        /// <summary>The option can be written.</summary>
        Writable = 2,
    }

    /// <summary>One progress report of an upload.</summary>
    public struct UploadProgress
    {
        /// <summary>Makes a report.</summary>
        public UploadProgress(Stage stage, ulong done, ulong total)
        {
            Stage = stage;
            Done = done;
            Total = total;
        }

        /// <summary>The stage the upload is in.</summary>
        public Stage Stage { get; }
        /// <summary>How much of the stage is done, in the stage's unit.</summary>
        public ulong Done { get; }
        /// <summary>The whole of the stage, in the same unit.</summary>
        public ulong Total { get; }

        /// <summary>"Packing 10/20".</summary>
        public override string ToString() => Stage + " " + Done + "/" + Total;
    }

    /// <summary>What an upload delivered.</summary>
    public sealed class Delivery
    {
        internal Delivery(string name, Location destination, string storedName)
        {
            Name = name;
            Destination = destination;
            StoredName = storedName;
        }

        /// <summary>The delivered file name: time stamp and packed name in the shared folder, the
        /// packed name on the server.</summary>
        public string Name { get; }
        /// <summary>The destination that took it: <see cref="Location.SharedFolder"/> or
        /// <see cref="Location.Server"/>.</summary>
        public Location Destination { get; }
        /// <summary>The name the server answered, under which it stored the item (it may differ
        /// from <see cref="Name"/> when the server keeps every upload); "" without an answer.</summary>
        public string StoredName { get; }
    }

    /// <summary>One option as the library lists it, with the values it has.</summary>
    public sealed class OptionInfo
    {
        internal OptionInfo(string name, string summary, string description, OptionAccess access,
                            OptionType type, object[] values)
        {
            Name = name;
            Summary = summary;
            Description = description;
            Access = access;
            Type = type;
            Current = values[0];
            Minimum = values[1];
            Maximum = values[2];
            Default = values[3];
        }

        /// <summary>The name the indexer and Get/Set take.</summary>
        public string Name { get; }
        /// <summary>One line.</summary>
        public string Summary { get; }
        /// <summary>A longer text.</summary>
        public string Description { get; }
        /// <summary>Whether it can be read and written.</summary>
        public OptionAccess Access { get; }
        /// <summary>The C type, and so the .NET type of the values: int, uint, ulong or string.</summary>
        public OptionType Type { get; }
        /// <summary>The current value, or null when it cannot be read.</summary>
        public object Current { get; }
        /// <summary>The lower bound, or null when the option has none.</summary>
        public object Minimum { get; }
        /// <summary>The upper bound, or null when the option has none.</summary>
        public object Maximum { get; }
        /// <summary>The default value, or null when the option has none.</summary>
        public object Default { get; }
    }

    /// <summary>An item kept in the spool folder.</summary>
    public sealed class SpooledItem
    {
        internal SpooledItem(string line)
        {
            string[] fields = line.Split(new[] { '\t' }, 5);
            Item = fields[0];
            PackedName = fields[1];
            Destinations = fields[2].Split(',').Select(d => (Location)int.Parse(d)).ToList();
            Attempts = int.Parse(fields[3]);
            LastCause = fields[4];
        }

        /// <summary>The item's folder in the spool.</summary>
        public string Item { get; }
        /// <summary>The packed file's name.</summary>
        public string PackedName { get; }
        /// <summary>Where it goes, in order.</summary>
        public IReadOnlyList<Location> Destinations { get; }
        /// <summary>Delivery attempts made so far.</summary>
        public int Attempts { get; }
        /// <summary>Why the last attempt failed, on one line.</summary>
        public string LastCause { get; }
    }

    /// <summary>A call of the library failed.</summary>
    public class DataExchangeException : Exception
    {
        /// <summary>Makes the exception of a failed call.</summary>
        public DataExchangeException(string function, Result? result, IReadOnlyList<string> errors)
            : base(function + (result == null ? " failed" : " returned " + result + " (" + (int)result + ")")
                   + string.Concat(errors.Select(e => "\n  " + e)))
        {
            Function = function;
            Result = result;
            Errors = errors;
        }

        /// <summary>The export that failed, e.g. "dataExchangeUploadData".</summary>
        public string Function { get; }
        /// <summary>Its result; null when no handle could be opened.</summary>
        public Result? Result { get; }
        /// <summary>The lines of the handle's error list (or of the reason a handle could not be
        /// opened).</summary>
        public IReadOnlyList<string> Errors { get; }
    }

    /// <summary><see cref="Handle.SendSpooled"/> left items in the spool.</summary>
    public class SpoolException : DataExchangeException
    {
        /// <summary>Makes the exception of a spool that is not empty after sending.</summary>
        public SpoolException(string function, Result result, IReadOnlyList<string> errors,
                              uint delivered, uint remaining)
            : base(function, result, errors)
        {
            Delivered = delivered;
            Remaining = remaining;
        }

        /// <summary>Items delivered by this call.</summary>
        public uint Delivered { get; }
        /// <summary>Items still in the spool.</summary>
        public uint Remaining { get; }
    }

    /// <summary>A call stored a value, but not the one given.</summary>
    public sealed class WarningEventArgs : EventArgs
    {
        internal WarningEventArgs(string function, string message)
        {
            Function = function;
            Message = message;
        }

        /// <summary>The export that warned, e.g. "dataExchangeSetInt32Option".</summary>
        public string Function { get; }
        /// <summary>The library's message, e.g. "Option 'Device type' was cropped".</summary>
        public string Message { get; }
    }

    /// <summary>The identity of the loaded library, and its log.</summary>
    public static class Library
    {
        /// <summary>The library's log lines, once a handle was opened: what it does
        /// ("Adding file a.csv", "Trying to move …") as <see cref="TraceEventType.Verbose"/>, a
        /// file the zip writer could not pack as <see cref="TraceEventType.Warning"/>. They come
        /// from the library's threads as well. Like every TraceSource it is off until a switch
        /// level and a listener are given, in code or in the application's configuration file
        /// (source name "DataExchange"); the library's own output (the debugger's, standard
        /// error elsewhere) gets none of them meanwhile.</summary>
        public static TraceSource Trace { get; } = new TraceSource("DataExchange");

        // Kept for the process's whole life: the library may call it from any thread until it is
        // taken back, which happens as the process exits, before the runtime goes.
        private static Native.LogCallback logRelay;
        private static readonly object logLock = new object();

        internal static void TakeLogLines()
        {
            lock (logLock) {
                if (logRelay != null)
                    return;
                logRelay = Relay;
                Native.dataExchangeSetLogCallback(logRelay, IntPtr.Zero);
                EventHandler giveBack = (sender, e) => Native.dataExchangeSetLogCallback(null, IntPtr.Zero);
                AppDomain.CurrentDomain.ProcessExit += giveBack;
                AppDomain.CurrentDomain.DomainUnload += giveBack;
            }
        }

        private static void Relay(uint level, IntPtr line, IntPtr context)
        {
            try {
                Trace.TraceEvent(level == 1 ? TraceEventType.Warning : TraceEventType.Verbose, 0,
                                 Native.Text(line));
            } catch {
                // Nothing may reach native code; a listener that fails loses its line.
            }
        }

        /// <summary>"v2.0.0 (build time in seconds) build platform".</summary>
        public static string Version => Read("dataExchangeVersion", Native.dataExchangeVersion);

        /// <summary>The 40 hex digits of the library's source revision.</summary>
        public static string Sha1 => Read("dataExchangeSha1", Native.dataExchangeSha1);

        private static string Read(string function, Func<UIntPtr, byte[], int> export)
        {
            return Native.Grow(64, (size, buffer) => {
                int result = export(size, buffer);
                if (result != Native.Success && result != Native.BufferTooSmall)
                    throw new DataExchangeException(function, (Result)result, new string[0]);
                return result;
            });
        }
    }
}
