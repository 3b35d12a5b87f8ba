using System;
using System.Runtime.InteropServices;

namespace Orvik
{
    /// <summary>SCSI command descriptor blocks (SPC, SBC).</summary>
    public static class Cdb
    {
        /// <summary>INQUIRY; its data is for <see cref="Orvik.Inquiry.Decode"/>.</summary>
        public static byte[] Inquiry()
        {
            return Make(6, Native.orvik_cdb_inquiry);
        }

        /// <summary>TEST UNIT READY, a command without data.</summary>
        public static byte[] TestUnitReady()
        {
            return Make(6, Native.orvik_cdb_test_unit_ready);
        }

        /// <summary>READ CAPACITY(10); its data is for <see cref="Capacity.Decode"/>.</summary>
        public static byte[] ReadCapacity()
        {
            return Make(8, Native.orvik_cdb_read_capacity);
        }

        /// <summary>REQUEST SENSE; its data is for <see cref="Sense.Decode"/>.</summary>
        public static byte[] RequestSense()
        {
            return Make(6, Native.orvik_cdb_request_sense);
        }

        /// <summary>
        /// READ(6) of <paramref name="count"/> blocks, 1 to 255, beginning with block <paramref name="first"/>.
        /// Their sum is at most 2097152. A read returns at most 65536 bytes: 128 blocks of 512.
        /// </summary>
        public static byte[] Read6(uint first, uint count)
        {
            return Make(6, cdb => Native.orvik_cdb_read6(first, count, cdb));
        }

        /// <summary>WRITE(6), with the same limits.</summary>
        public static byte[] Write6(uint first, uint count)
        {
            return Make(6, cdb => Native.orvik_cdb_write6(first, count, cdb));
        }

        private static byte[] Make(int length, Func<byte[], int> fill)
        {
            var cdb = new byte[length];
            OrvikException.ThrowIfFailed(fill(cdb));
            return cdb;
        }
    }

    /// <summary>Standard INQUIRY data. The texts have no trailing spaces, and '?' for unprintable bytes.</summary>
    public sealed class Inquiry
    {
        private Inquiry(Native.orvik_inquiry native)
        {
            DeviceType = native.device_type;
            Removable = native.removable != 0;
            Vendor = Native.Text(native.vendor);
            Product = Native.Text(native.product);
            Revision = Native.Text(native.revision);
        }

        /// <summary>Peripheral device type: 0 is a disk, 5 a CD-ROM drive.</summary>
        public int DeviceType { get; }
        /// <summary>Whether the medium is removable.</summary>
        public bool Removable { get; }
        /// <summary>The vendor.</summary>
        public string Vendor { get; }
        /// <summary>The product.</summary>
        public string Product { get; }
        /// <summary>The revision.</summary>
        public string Revision { get; }

        /// <summary>Throws <see cref="ErrorKind.BadAnswer"/> if there are fewer than 36 bytes.</summary>
        public static Inquiry Decode(byte[] data)
        {
            if (data == null)
                throw new ArgumentNullException(nameof(data));
            var native = new Native.orvik_inquiry { size = (uint)Marshal.SizeOf<Native.orvik_inquiry>() };
            OrvikException.ThrowIfFailed(Native.orvik_decode_inquiry(data, (uint)data.Length, ref native));
            return new Inquiry(native);
        }
    }

    /// <summary>READ CAPACITY(10) data.</summary>
    public sealed class Capacity
    {
        private Capacity(Native.orvik_capacity native)
        {
            BlockLength = native.block_length;
            BlockCount = native.block_count;
        }

        /// <summary>In bytes, never 0.</summary>
        public uint BlockLength { get; }
        /// <summary>Number of blocks.</summary>
        public ulong BlockCount { get; }

        /// <summary>
        /// Throws <see cref="ErrorKind.BadAnswer"/> if there are fewer than 8 bytes, or the block length is 0.
        /// </summary>
        public static Capacity Decode(byte[] data)
        {
            if (data == null)
                throw new ArgumentNullException(nameof(data));
            var native = new Native.orvik_capacity { size = (uint)Marshal.SizeOf<Native.orvik_capacity>() };
            OrvikException.ThrowIfFailed(Native.orvik_decode_capacity(data, (uint)data.Length, ref native));
            return new Capacity(native);
        }
    }

    /// <summary>Sense data: why a camera refused a command.</summary>
    public sealed class Sense
    {
        internal Sense(Native.orvik_sense native)
        {
            Key = native.key;
            Code = native.code;
            Qualifier = native.qualifier;
            Deferred = native.deferred != 0;
            Text = Native.Text(native.text);
        }

        /// <summary>Sense key, 0 to 15.</summary>
        public int Key { get; }
        /// <summary>Additional sense code.</summary>
        public int Code { get; }
        /// <summary>Additional sense code qualifier.</summary>
        public int Qualifier { get; }
        /// <summary>About a command before the last one.</summary>
        public bool Deferred { get; }
        /// <summary>In the words of SPC, such as "NOT READY: MEDIUM NOT PRESENT".</summary>
        public string Text { get; }

        internal static Native.orvik_sense Empty()
        {
            return new Native.orvik_sense { size = (uint)Marshal.SizeOf<Native.orvik_sense>() };
        }

        /// <summary>
        /// Throws <see cref="ErrorKind.BadAnswer"/> if there are fewer than 8 bytes, or another format.
        /// </summary>
        public static Sense Decode(byte[] data)
        {
            if (data == null)
                throw new ArgumentNullException(nameof(data));
            Native.orvik_sense native = Empty();
            OrvikException.ThrowIfFailed(Native.orvik_decode_sense(data, (uint)data.Length, ref native));
            return new Sense(native);
        }
    }
}
